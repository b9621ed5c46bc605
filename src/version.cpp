#include "version.h"

#include <algorithm>

#include "utility/cstr.h"
#include "utility/file.h"

namespace version {

namespace {

constexpr char kFieldSeparator[] = ".";
constexpr int kLineLimit = 1024;

string_list numeric_fields(const std::string& text) {
  string_list fields;
  split(text.substr(kPrefixBytes), kFieldSeparator, fields);
  return fields;
}

}  // namespace

void split(const std::string& text, const std::string& separators, string_list& fields) {
  std::string::size_type begin = text.find_first_not_of(separators);
  while (begin != std::string::npos) {
    const std::string::size_type end = text.find_first_of(separators, begin);
    fields.push_back(text.substr(begin, end - begin));
    begin = text.find_first_not_of(separators, end);
  }
}

bool is_newer(const std::string& offered, const std::string& installed) {
  const string_list offered_fields = numeric_fields(offered);
  const string_list installed_fields = numeric_fields(installed);
  const std::size_t common = std::min(offered_fields.size(), installed_fields.size());
  for (std::size_t i = 0; i < common; ++i) {
    const int offered_number = utility::CStr::to_int(offered_fields[i].c_str());
    const int installed_number = utility::CStr::to_int(installed_fields[i].c_str());
    if (offered_number != installed_number) return offered_number > installed_number;
  }
  return false;
}

bool is_version_file(const std::string& path) {
  utility::LineReader reader(path, kLineLimit);
  int lines_with_text = 0;
  std::string line;
  while (lines_with_text < 2 && reader.next(line)) {
    if (!line.empty()) ++lines_with_text;
  }
  return lines_with_text == 1;
}

std::optional<std::string> read_version_file(const std::string& path) {
  constexpr int kLimit = static_cast<int>(kMaxBytes) + 1;
  std::optional<std::string> line = utility::read_first_line(path, kLimit);
  if (line) utility::remove_line_feed(*line);
  return line;
}

}  // namespace version
