#include "common/terminal.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace tools {

namespace {

constexpr char kReset[] = "\033[0m";

const char* escape_sequence(Color color) {
  switch (color) {
    case Color::kBold:
      return "\033[1m";
    case Color::kRed:
      return "\033[31m";
    case Color::kGreen:
      return "\033[32m";
    case Color::kYellow:
      return "\033[33m";
    case Color::kBlue:
      return "\033[34m";
    case Color::kNone:
      break;
  }
  return "";
}

std::string_view variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : value;
}

std::string escaped(unsigned char byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  switch (byte) {
    case '\t':
      return "\\t";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    default:
      return {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 15U]};
  }
}

}  // namespace

bool use_color(ColorMode mode, int fd) {
  if (mode != ColorMode::kAuto) return mode == ColorMode::kAlways;
  return ::isatty(fd) == 1 && variable("NO_COLOR").empty() && variable("TERM") != "dumb";
}

std::string printable(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7f) {
      result += c;
    } else {
      result += escaped(byte);
    }
  }
  return result;
}

std::string Painter::operator()(Color color, const std::string& text) const {
  if (!enabled_ || color == Color::kNone) return text;
  return escape_sequence(color) + text + kReset;
}

}  // namespace tools
