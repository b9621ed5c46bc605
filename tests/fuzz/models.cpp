#include "models.h"

#include <cstdint>
#include <limits>

#include "support.h"

namespace fuzz {

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

long leading_long(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size() && is_space(text[i])) ++i;
  const bool negative = i < text.size() && text[i] == '-';
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) ++i;

  // Negative numbers have a larger range.
  long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    const int digit = text[i] - '0';
    const long least = std::numeric_limits<long>::min();
    const bool fits = value >= (least + digit) / 10;
    value = fits ? value * 10 - digit : least;
  }
  if (negative) return value;
  return value == std::numeric_limits<long>::min() ? std::numeric_limits<long>::max() : -value;
}

int leading_int(const std::string& text) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(leading_long(text)));
}

string_list line_pieces(const std::string& bytes, std::size_t limit) {
  string_list pieces;
  std::string piece;
  for (const char c : bytes) {
    piece += c;
    if (c == '\n' || piece.size() == limit - 1) {
      pieces.push_back(before_nul(piece));
      piece.clear();
    }
  }
  if (!piece.empty()) pieces.push_back(before_nul(piece));
  return pieces;
}

std::string first_line(const std::string& bytes, std::size_t limit) {
  const string_list pieces = line_pieces(bytes, limit);
  if (pieces.empty()) return "";
  return pieces.front().substr(0, pieces.front().find('\n'));
}

}  // namespace fuzz
