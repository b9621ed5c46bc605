// String helpers, each compared with a different implementation.
// Input: first argument|second argument|text
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "models.h"
#include "support.h"
#include "utility/cstr.h"

using utility::CStr;

namespace {

std::string trimmed(std::string text, const std::string& removed, bool left, bool right) {
  const auto is_removed = [&](char c) { return removed.find(c) != std::string::npos; };
  while (left && !text.empty() && is_removed(text.front())) text.erase(text.begin());
  while (right && !text.empty() && is_removed(text.back())) text.pop_back();
  return text;
}

/// The result of @a operation, which changes a string in place, for @a text.
template <typename Operation>
std::string result_of(Operation operation, std::string text) {
  operation(text);
  return text;
}

void check_trim(const std::string& text, const std::string& removed, bool left, bool right,
                void (*trim)(std::string&)) {
  const std::string once = result_of(trim, text);
  fuzz::check_equal(once, trimmed(text, removed, left, right), "trim removes what it should");
  fuzz::check_equal(result_of(trim, once), once, "trimming twice is trimming once");
}

void check_trim_byte(const std::string& text, char c, bool left, bool right,
                     void (*trim)(char, std::string&)) {
  std::string once = text;
  trim(c, once);
  fuzz::check_equal(once, trimmed(text, std::string(1, c), left, right),
                    "trim_byte removes what it should");
  std::string twice = once;
  trim(c, twice);
  fuzz::check_equal(twice, once, "trimming a byte twice is trimming it once");
}

void check_trimming(const std::string& text, const std::string& bytes) {
  const char white_space[] = " \t\r\n";
  check_trim(text, white_space, true, true, CStr::trim);
  check_trim(text, white_space, true, false, CStr::left_trim);
  check_trim(text, white_space, false, true, CStr::right_trim);
  const char c = bytes.empty() ? '0' : bytes.front();
  check_trim_byte(text, c, true, true, CStr::trim_byte);
  check_trim_byte(text, c, true, false, CStr::left_trim_byte);
  check_trim_byte(text, c, false, true, CStr::right_trim_byte);
}

/// Whether @a text has @a part at @a position.
bool stands_at(const std::string& text, std::size_t position, const std::string& part) {
  return text.compare(position, part.size(), part) == 0;
}

std::size_t first_place(const std::string& text, const std::string& part, std::size_t from) {
  for (std::size_t i = from; i + part.size() <= text.size(); ++i) {
    if (stands_at(text, i, part)) return i;
  }
  return std::string::npos;
}

/// @a text without its closed spans, each of which begins at the first @a open.
std::string without_remarks(std::string text, const std::string& open, const std::string& close) {
  for (;;) {
    const std::size_t begin = first_place(text, open, 0);
    if (begin == std::string::npos) return text;
    const std::size_t end = first_place(text, close, begin);
    if (end == std::string::npos) return text;
    text = text.substr(0, begin) + text.substr(end + close.size());
  }
}

void check_remarks(const std::string& text, const std::string& open, const std::string& close) {
  std::string cut = text;
  CStr::trim_remark(open, cut);
  fuzz::check_equal(cut, text.substr(0, first_place(text, open, 0)),
                    "trim_remark cuts at the first marker");

  std::string spans_removed = text;
  CStr::trim_remark(open, close, spans_removed);
  fuzz::check_equal(spans_removed, close.empty() ? text : without_remarks(text, open, close),
                    "trim_remark removes the closed spans");
}

string_list words_of(const std::string& text) {
  std::istringstream stream(text);
  string_list words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

string_list pieces_between(const std::string& delimiter, const std::string& text) {
  string_list pieces(1);
  for (std::size_t i = 0; i < text.size();) {
    const bool at_delimiter = !delimiter.empty() && stands_at(text, i, delimiter);
    if (at_delimiter && !pieces.back().empty()) pieces.emplace_back();
    if (!at_delimiter) pieces.back() += text[i];
    i += at_delimiter ? delimiter.size() : 1;
  }
  if (pieces.back().empty()) pieces.pop_back();
  return pieces;
}

void check_splitting(const std::string& text, const std::string& delimiter) {
  string_list words = {"kept"};
  CStr::ext_line(words, text);
  string_list expected = words_of(text);
  expected.insert(expected.begin(), "kept");
  fuzz::check_equal(words, expected, "ext_line appends the words");

  string_list pieces = {"kept"};
  CStr::ext_line(delimiter, pieces, text);
  expected = pieces_between(delimiter, text);
  expected.insert(expected.begin(), "kept");
  fuzz::check_equal(pieces, expected, "ext_line appends the pieces between delimiters");
}

void check_replacement(const std::string& text, const std::string& from, const std::string& to) {
  std::string expected;
  for (std::size_t i = 0; i < text.size();) {
    const bool found = !from.empty() && stands_at(text, i, from);
    expected += found ? to : std::string(1, text[i]);
    i += found ? from.size() : 1;
  }
  std::string replaced = text;
  CStr::string_replace(replaced, from, to);
  fuzz::check_equal(replaced, expected, "string_replace replaces from left to right");
}

template <typename Number>
Number extracted(const std::string& text) {
  std::istringstream stream(text);
  Number number = 0;
  stream >> number;
  return number;
}

void check_numbers(const std::string& text) {
  fuzz::check(CStr::atoull(text) == extracted<unsigned long long>(text),
              "atoull reads as a stream does");
  fuzz::check_equal(CStr::atoll(text), extracted<long long>(text), "atoll reads as a stream does");
  fuzz::check_equal(CStr::atol(text), extracted<long>(text), "atol reads as a stream does");
  fuzz::check_equal(CStr::atol(text), fuzz::leading_long(text), "atol reads as strtol does");
  fuzz::check_equal(CStr::to_int(text.c_str()), fuzz::leading_int(text),
                    "to_int keeps the low 32 bits");
}

void check_number_texts(const std::string& bytes) {
  unsigned long long number = 0;
  std::memcpy(&number, bytes.data(), std::min(bytes.size(), sizeof number));
  char expected[32] = {};
  (void)std::snprintf(expected, sizeof expected, "%llu", number);
  fuzz::check_equal(CStr::ulltoa(number), expected, "ulltoa gives the decimal text");
  fuzz::check(CStr::atoull(expected) == number, "atoull undoes ulltoa");

  long long signed_number = 0;
  std::memcpy(&signed_number, &number, sizeof number);
  (void)std::snprintf(expected, sizeof expected, "%lld", signed_number);
  fuzz::check_equal(CStr::lltoa(signed_number), expected, "lltoa gives the decimal text");
  fuzz::check_equal(CStr::atoll(expected), signed_number, "atoll undoes lltoa");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Fields fields(data, size);
  const std::string first = fields.next();
  const std::string second = fields.next();
  const std::string text = fields.rest();
  check_trimming(text, first);
  check_remarks(text, first, second);
  check_splitting(text, first);
  check_replacement(text, first, second);
  check_numbers(text);
  check_number_texts(text);
  return 0;
}
