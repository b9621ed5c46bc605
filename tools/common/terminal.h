// Text for people: optional colours, and no control characters from untrusted text.
#pragma once

#include <string>

namespace tools {

enum class ColorMode { kAuto, kAlways, kNever };

enum class Color { kNone, kBold, kRed, kGreen, kYellow, kBlue };

/// Whether output to the descriptor @a fd gets colours. kAuto: only on a terminal, unless the
/// environment variable NO_COLOR is set and not empty, or TERM is "dumb".
[[nodiscard]] bool use_color(ColorMode mode, int fd);

/// @a text with every byte outside printable ASCII replaced by its escape: `\t`, `\n`, `\r` or
/// `\xHH`. Use it for all text from a file, a server or a command line.
[[nodiscard]] std::string printable(const std::string& text);

/// Colours text if colours are enabled.
class Painter {
 public:
  explicit Painter(bool enabled) : enabled_(enabled) {}

  /// @a text in @a color; unchanged if colours are disabled.
  [[nodiscard]] std::string operator()(Color color, const std::string& text) const;

 private:
  bool enabled_;
};

}  // namespace tools
