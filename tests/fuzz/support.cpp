#include "support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "test_support.h"
#include "utility/file.h"

namespace fuzz {

namespace {

/// @a text with all bytes except printable ASCII as \xNN.
std::string printable(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c >= ' ' && c <= '~') {
      result += c;
    } else {
      char code[5] = {};
      (void)std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
      result += code;
    }
  }
  return result;
}

std::string printable(const string_list& list) {
  std::string result;
  for (const std::string& text : list) result += "[" + printable(text) + "]";
  return result;
}

[[noreturn]] void fail(const char* property, const std::string& details) {
  (void)std::fprintf(stderr, "This does not hold: %s\n%s", property, details.c_str());
  std::abort();
}

std::string difference(const std::string& actual, const std::string& expected) {
  return "  actual:   " + actual + "\n  expected: " + expected + "\n";
}

}  // namespace

void check(bool holds, const char* property) {
  if (!holds) fail(property, "");
}

void check_equal(std::string_view actual, std::string_view expected, const char* property) {
  if (actual != expected) fail(property, difference(printable(actual), printable(expected)));
}

void check_equal(const string_list& actual, const string_list& expected, const char* property) {
  if (actual != expected) fail(property, difference(printable(actual), printable(expected)));
}

void check_equal(long long actual, long long expected, const char* property) {
  if (actual == expected) return;
  fail(property, difference(std::to_string(actual), std::to_string(expected)));
}

std::string Fields::next() {
  const std::size_t size = std::min(rest_.find('|'), rest_.size());
  std::string field(rest_.substr(0, size));
  rest_.remove_prefix(std::min(size + 1, rest_.size()));
  return field;
}

std::string before_nul(const std::string& bytes) { return bytes.substr(0, bytes.find('\0')); }

void enter_private_directory() {
  if (!test_support::enter_private_namespace()) {
    (void)std::fputs("skipped: this host does not allow private mount namespaces\n", stderr);
    std::exit(kCannotRun);
  }
  check(::mkdir(kInstallPath, 0700) == 0, "the target can make its own directories");
  write_file(kInstallPathFile, kInstallPath);
}

void write_file(const std::string& path, std::string_view bytes) {
  const utility::Descriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  check(
      file && ::write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
      "the target can write its own files");
}

std::string read_file(const std::string& path) {
  const utility::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status = {};
  check(file && ::fstat(file.get(), &status) == 0, "the target can read its own files");
  std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
  check(::read(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
        "the target can read its own files");
  return bytes;
}

}  // namespace fuzz
