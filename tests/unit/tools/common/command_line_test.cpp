#include "common/command_line.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

using tools::ColorMode;

struct Parsed {
  std::optional<int> status;
  std::string out, err;
  ColorMode color = ColorMode::kAuto;
};

Parsed parse(std::vector<const char*> arguments) {
  CLI::App app("What it does.", "norvak_example");
  Parsed result;
  tools::add_version_option(app);
  tools::add_color_option(app, result.color);
  arguments.insert(arguments.begin(), "norvak_example");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  result.status =
      tools::parse_command_line(app, static_cast<int>(arguments.size()), arguments.data());
  result.out = testing::internal::GetCapturedStdout();
  result.err = testing::internal::GetCapturedStderr();
  return result;
}

TEST(CommandLine, AfterValidOptionsTheProgramContinues) {
  const Parsed parsed = parse({"--color", "always"});
  EXPECT_EQ(parsed.status, std::nullopt);
  EXPECT_EQ(parsed.color, ColorMode::kAlways);
  EXPECT_EQ(parsed.out + parsed.err, "");
  EXPECT_EQ(parse({"--color=never"}).color, ColorMode::kNever);
}

TEST(CommandLine, HelpAndVersionGoToStdout) {
  const Parsed help = parse({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("What it does."), std::string::npos);
  const Parsed version = parse({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("norvak_example ", 0), 0U);
  EXPECT_EQ(help.err + version.err, "");
}

TEST(CommandLine, ErrorsGoToStderrAndExitWith64) {
  for (const auto& arguments : std::vector<std::vector<const char*>>{
           {"--color", "sometimes"}, {"--color"}, {"--unknown"}, {"surplus"}}) {
    const Parsed parsed = parse(arguments);
    EXPECT_EQ(parsed.status, 64);
    EXPECT_EQ(parsed.out, "");
    EXPECT_NE(parsed.err, "");
  }
}

TEST(PrintJson, IsOneLineOfPrintableAscii) {
  std::ostringstream out;
  tools::print_json(out, {{"text", "\x1b\x7f\n\xc3\xa9\xff"}});
  EXPECT_EQ(out.str(), "{\"text\":\"\\u001b\\u007f\\n\\u00e9\\ufffd\"}\n");
}

}  // namespace
