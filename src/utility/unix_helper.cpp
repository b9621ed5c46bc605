#include "utility/unix_helper.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "utility/file.h"

namespace utility {

namespace {

constexpr int kInstallPathLimit = 1023;

constexpr int kCannotExecute = 127;

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

/// Whether @a text begins with two double or two single quotes: an empty argument.
bool is_empty_argument(const char* text) {
  return std::strncmp(text, "\"\"", 2) == 0 || std::strncmp(text, "''", 2) == 0;
}

/// Replaces blanks between quotes with line feeds, so that splitting at blanks keeps them. Both
/// kinds of quotes toggle the same flag.
void protect_quoted_blanks(std::string& command) {
  bool quoted = false;
  for (char& c : command) {
    if (c == '"' || c == '\'') quoted = !quoted;
    if (c == ' ' && quoted) c = '\n';
  }
}

/// Restores a field that has protected blanks and removes its quotes.
void restore_quoted_blanks(char* field) {
  if (std::strchr(field, '\n') == nullptr) return;
  for (char* c = field; *c != '\0'; ++c) {
    if (*c == '"' || *c == '\'' || *c == '\n') *c = ' ';
  }
  (void)CUnixHelper::trim_space(field);
}

/// Splits @a text in place and returns its fields, followed by a null pointer.
std::vector<char*> split(std::string& text, char delimiter) {
  const auto most_fields = std::count(text.begin(), text.end(), delimiter) + 1;
  std::vector<char*> fields(static_cast<std::size_t>(most_fields) + 1, nullptr);
  const char delimiters[] = {delimiter, '\0'};
  int count = 0;
  (void)CUnixHelper::parse(text.data(), delimiters, fields.data(), &count);
  fields.resize(static_cast<std::size_t>(count) + 1);
  return fields;
}

int run_and_wait(const char* program, char* const* arguments) {
  const pid_t child = ::fork();
  if (child < 0) return -1;
  if (child == 0) {
    (void)::execv(program, arguments);
    ::_exit(kCannotExecute);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

}  // namespace

std::optional<std::string> CUnixHelper::read_install_path(const std::string& file) {
  std::optional<std::string> path = read_first_line(file, kInstallPathLimit);
  if (path) remove_line_feed(*path);
  return path;
}

std::string CUnixHelper::get_norvak_path() {
  return read_install_path(kInstallPathFile).value_or(kDefaultInstallPath);
}

int CUnixHelper::keld_system(const char* command_line) {
  if (command_line == nullptr) return -1;
  std::string command(command_line);
  protect_quoted_blanks(command);
  const std::vector<char*> arguments = split(command, ' ');

  char program[kResolvedBytes] = {};
  if (get_command_obs_path(arguments.front(), program) == 0) return -1;
  return run_and_wait(program, arguments.data());
}

bool CUnixHelper::parse(char* text, const char* delimiters, char** fields, int* count) {
  if (text == nullptr) return false;
  char* rest = trim_space(text);
  fields[0] = rest;
  *count = 1;
  if (std::strlen(delimiters) == 1 && std::strchr(rest, delimiters[0]) == nullptr) return true;

  while (char* const end = std::strpbrk(rest, delimiters)) {
    *end = '\0';
    rest = trim_space(end + 1);
    fields[*count] = is_empty_argument(rest) ? end : rest;  // `end` points to an empty text
    ++*count;
  }
  std::for_each(fields, fields + *count, restore_quoted_blanks);
  return true;
}

char* CUnixHelper::trim_space(char* text) {
  if (text == nullptr) return text;
  const char* begin = text;
  while (is_space(*begin)) ++begin;
  const char* end = begin + std::strlen(begin);
  while (end > begin && is_space(end[-1])) --end;
  const auto length = static_cast<std::size_t>(end - begin);
  std::memmove(text, begin, length);
  text[length] = '\0';
  return text;
}

int CUnixHelper::get_command_obs_path(const char* command, char* resolved) {
  if (command == nullptr || resolved == nullptr) return 0;
  if (command[0] == '/') {
    const std::size_t length = std::strlen(command);
    if (length >= kResolvedBytes) return 0;
    std::memcpy(resolved, command, length + 1);
    return 1;
  }
  const char* const path = std::getenv("PATH");
  if (path == nullptr) return 0;

  std::string directories(path);
  resolved[0] = '\0';
  for (const char* directory : split(directories, ':')) {
    if (directory == nullptr) break;
    char candidate[kResolvedBytes] = {};
    const int length = std::snprintf(candidate, sizeof candidate, "%s/%s", directory, command);
    if (length > 0 && ::access(candidate, X_OK) == 0) {
      std::memcpy(resolved, candidate, sizeof candidate);
      return 1;
    }
  }
  return 1;
}

int CUnixHelper::cp_file(const char* source, const char* target) {
  return copy_file(source, target) == CopyResult::kFailed ? 0 : 1;
}

int CUnixHelper::replace_file(const char* source, const char* target) {
  if (cp_file(source, target) == 0) return 0;
  (void)::unlink(source);
  return 1;
}

bool CUnixHelper::system(const char* command) {
  if (command == nullptr) return false;
  const int status = std::system(command);
  return status != -1 && !WIFSIGNALED(status);
}

}  // namespace utility
