#include "common/terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "test_support.h"
#include "utility/file.h"

namespace {

using tools::Color;
using tools::ColorMode;
using tools::Painter;
using tools::printable;
using tools::use_color;

TEST(Printable, PrintableAsciiIsUnchanged) {
  std::string text;
  for (char c = ' '; c <= '~'; ++c) text += c;
  EXPECT_EQ(printable(text), text);
  EXPECT_EQ(printable(""), "");
}

TEST(Printable, EverythingElseIsEscaped) {
  EXPECT_EQ(printable("a\tb\nc\rd"), "a\\tb\\nc\\rd");
  EXPECT_EQ(printable("\033[31mred"), "\\x1b[31mred");
  EXPECT_EQ(printable(std::string("\0\x7f\x9b\xff", 4)), "\\x00\\x7f\\x9b\\xff");
  EXPECT_EQ(printable("\xc3\xa9"), "\\xc3\\xa9");
}

TEST(Printable, NoControlByteRemains) {
  for (int byte = 0; byte < 256; ++byte) {
    for (const char c : printable(std::string(1, static_cast<char>(byte)))) {
      EXPECT_TRUE(c >= ' ' && c <= '~') << byte;
    }
  }
}

TEST(Painter, ColoursOnlyWhereEnabled) {
  EXPECT_EQ(Painter(true)(Color::kRed, "text"), "\033[31mtext\033[0m");
  EXPECT_EQ(Painter(true)(Color::kNone, "text"), "text");
  EXPECT_EQ(Painter(false)(Color::kRed, "text"), "text");
}

/// A test with a new pseudo-terminal, of which it uses the program's side.
class UseColor : public testing::Test {
 protected:
  UseColor()
      : no_color_("NO_COLOR", nullptr),
        term_("TERM", "xterm"),
        control_(::posix_openpt(O_RDWR | O_NOCTTY)),
        terminal_(open_terminal()) {}

  void SetUp() override { ASSERT_TRUE(terminal_); }

  [[nodiscard]] int terminal() const { return terminal_.get(); }

 private:
  [[nodiscard]] int open_terminal() const {
    if (!control_ || ::grantpt(control_.get()) != 0 || ::unlockpt(control_.get()) != 0) return -1;
    return ::open(::ptsname(control_.get()), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }

  test_support::ScopedVariable no_color_;
  test_support::ScopedVariable term_;
  utility::Descriptor control_;
  utility::Descriptor terminal_;
};

TEST_F(UseColor, ByDefaultOnATerminalOnly) {
  const utility::Descriptor file(::open("/dev/null", O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(use_color(ColorMode::kAuto, terminal()));
  EXPECT_FALSE(use_color(ColorMode::kAuto, file.get()));
}

TEST_F(UseColor, VariableNoColorDisablesItUnlessEmpty) {
  {
    const test_support::ScopedVariable set("NO_COLOR", "1");
    EXPECT_FALSE(use_color(ColorMode::kAuto, terminal()));
  }
  const test_support::ScopedVariable empty("NO_COLOR", "");
  EXPECT_TRUE(use_color(ColorMode::kAuto, terminal()));
}

TEST_F(UseColor, NotOnADumbTerminal) {
  const test_support::ScopedVariable dumb("TERM", "dumb");
  EXPECT_FALSE(use_color(ColorMode::kAuto, terminal()));
}

TEST_F(UseColor, TheCommandLineWins) {
  const test_support::ScopedVariable set("NO_COLOR", "1");
  EXPECT_TRUE(use_color(ColorMode::kAlways, -1));
  EXPECT_FALSE(use_color(ColorMode::kNever, terminal()));
}

}  // namespace
