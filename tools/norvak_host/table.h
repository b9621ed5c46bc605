// Layout of the tables for people.
#pragma once

#include <string>

namespace host {

constexpr std::size_t kTypeWidth = 8;

/// @a text, padded with blanks to @a width characters, and with at least one blank.
[[nodiscard]] inline std::string padded(const std::string& text, std::size_t width) {
  return text + std::string(width > text.size() + 1 ? width - text.size() : 1, ' ');
}

}  // namespace host
