#include "command_model.h"

#include <unistd.h>

#include <cstddef>
#include <cstdlib>

#include "models.h"

namespace fuzz {

namespace {

constexpr std::size_t kPathLimit = 254;

std::string with_restored_blanks(std::string field) {
  if (field.find('\n') == std::string::npos) return field;
  for (char& c : field) {
    if (c == '"' || c == '\'' || c == '\n') c = ' ';
  }
  return without_outer_space(field);
}

bool begins_with(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

}  // namespace

std::string without_outer_space(std::string text) {
  while (!text.empty() && is_space(text.front())) text.erase(0, 1);
  while (!text.empty() && is_space(text.back())) text.pop_back();
  return text;
}

string_list command_fields(const std::string& text, const std::string& delimiters) {
  std::string rest = without_outer_space(text);
  std::size_t end = rest.find_first_of(delimiters);
  if (delimiters.size() == 1 && end == std::string::npos) return {rest};

  string_list fields = {rest.substr(0, end)};
  while (end != std::string::npos) {
    rest = without_outer_space(rest.substr(end + 1));
    end = rest.find_first_of(delimiters);
    const bool is_empty = begins_with(rest, "\"\"") || begins_with(rest, "''");
    fields.push_back(is_empty ? "" : rest.substr(0, end));
  }
  for (std::string& field : fields) field = with_restored_blanks(field);
  return fields;
}

std::string with_protected_blanks(std::string command) {
  std::size_t quotes = 0;
  for (char& c : command) {
    if (c == '"' || c == '\'') ++quotes;
    if (c == ' ' && quotes % 2 == 1) c = '\n';
  }
  return command;
}

std::optional<std::string> program_path(const std::string& command,
                                        const std::optional<std::string>& path) {
  if (begins_with(command, "/")) {
    return command.size() > kPathLimit ? std::nullopt : std::optional(command);
  }
  if (!path) return std::nullopt;
  for (const std::string& directory : command_fields(*path, ":")) {
    std::string candidate = directory;
    candidate.append("/").append(command);
    if (candidate.size() > kPathLimit) candidate.resize(kPathLimit);
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

void set_path(const std::optional<std::string>& path) {
  static auto* const variable = new std::string;  // never destroyed: the environment refers to it
  (void)::unsetenv("PATH");
  if (!path) return;
  *variable = "PATH=" + *path;
  (void)::putenv(variable->data());
}

}  // namespace fuzz
