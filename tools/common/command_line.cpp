#include "common/command_line.h"

#include <map>
#include <nlohmann/json.hpp>
#include <ostream>

namespace tools {

void add_version_option(CLI::App& app) {
  app.set_version_flag("--version", app.get_name() + " " + NORVAK_VERSION,
                       "Print the version and exit");
}

void add_color_option(CLI::App& app, ColorMode& mode) {
  static const std::map<std::string, ColorMode> modes = {
      {"auto", ColorMode::kAuto}, {"always", ColorMode::kAlways}, {"never", ColorMode::kNever}};
  app.add_option_function<std::string>(
         "--color", [&mode](const std::string& name) { mode = modes.at(name); },
         "Colour the output: auto (default), always or never")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->type_name("WHEN");
}

std::optional<int> parse_command_line(CLI::App& app, int argc, const char* const* argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsageError;
  }
  return std::nullopt;
}

void print_json(std::ostream& out, const nlohmann::json& json) {
  constexpr int kOneLine = -1;
  constexpr bool kAsciiOnly = true;
  out << json.dump(kOneLine, ' ', kAsciiOnly, nlohmann::json::error_handler_t::replace) << "\n";
}

}  // namespace tools
