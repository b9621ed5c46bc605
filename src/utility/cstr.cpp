#include "utility/cstr.h"

#include <cstdint>
#include <cstdlib>

namespace utility {

namespace {

constexpr char kWhiteSpace[] = " \t\r\n";
constexpr char kWordSeparators[] = " \t\r\n\v\f";

}  // namespace

void CStr::trim(std::string& s) {
  left_trim(s);
  right_trim(s);
}

void CStr::left_trim(std::string& s) { s.erase(0, s.find_first_not_of(kWhiteSpace)); }

// find_last_not_of returns npos if nothing is to be kept, and npos + 1 is 0.
void CStr::right_trim(std::string& s) { s.erase(s.find_last_not_of(kWhiteSpace) + 1); }

void CStr::trim_byte(char c, std::string& s) {
  left_trim_byte(c, s);
  right_trim_byte(c, s);
}

void CStr::left_trim_byte(char c, std::string& s) { s.erase(0, s.find_first_not_of(c)); }

void CStr::right_trim_byte(char c, std::string& s) { s.erase(s.find_last_not_of(c) + 1); }

void CStr::trim_remark(const std::string& marker, std::string& s) {
  const std::string::size_type begin = s.find(marker);
  if (begin != std::string::npos) s.erase(begin);
}

void CStr::trim_remark(const std::string& open, const std::string& close, std::string& s) {
  if (close.empty()) return;  // would remove empty spans forever
  for (;;) {
    const std::string::size_type begin = s.find(open);
    if (begin == std::string::npos) return;
    const std::string::size_type end = s.find(close, begin);
    if (end == std::string::npos) return;
    s.erase(begin, end + close.size() - begin);
  }
}

void CStr::ext_line(string_list& words, const std::string& text) {
  std::string::size_type begin = text.find_first_not_of(kWordSeparators);
  while (begin != std::string::npos) {
    const std::string::size_type end = text.find_first_of(kWordSeparators, begin);
    words.push_back(text.substr(begin, end - begin));
    begin = text.find_first_not_of(kWordSeparators, end);
  }
}

void CStr::ext_line(const std::string& delimiter, string_list& pieces, const std::string& text) {
  std::string::size_type begin = 0;
  while (begin < text.size()) {
    std::string::size_type end =
        delimiter.empty() ? std::string::npos : text.find(delimiter, begin);
    if (end == std::string::npos) end = text.size();
    if (end > begin) pieces.push_back(text.substr(begin, end - begin));
    begin = end + delimiter.size();
  }
}

void CStr::string_replace(std::string& s, const std::string& from, const std::string& to) {
  if (from.empty()) return;
  std::string::size_type at = s.find(from);
  while (at != std::string::npos) {
    s.replace(at, from.size(), to);
    at = s.find(from, at + to.size());
  }
}

unsigned long long CStr::atoull(const std::string& s) {
  return std::strtoull(s.c_str(), nullptr, 10);
}

long long CStr::atoll(const std::string& s) { return std::strtoll(s.c_str(), nullptr, 10); }

long CStr::atol(const std::string& s) { return std::strtol(s.c_str(), nullptr, 10); }

std::string CStr::ulltoa(unsigned long long n) { return std::to_string(n); }

std::string CStr::lltoa(long long n) { return std::to_string(n); }

int CStr::to_int(const char* text) {
  return static_cast<std::int32_t>(std::strtol(text, nullptr, 10));
}

}  // namespace utility
