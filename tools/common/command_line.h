// What the command lines of all tools have in common.
#pragma once

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "common/terminal.h"

namespace tools {

/// Exit status for an unusable command line: EX_USAGE of sysexits.h.
constexpr int kUsageError = 64;

/// Adds --version, which prints the tool's name and version and ends the program like --help does.
void add_version_option(CLI::App& app);

/// Adds --color auto|always|never.
void add_color_option(CLI::App& app, ColorMode& mode);

/// Parses the command line. --help and --version print to stdout, errors to stderr.
/// @return the exit status if the program should end now; nothing if it should continue
[[nodiscard]] std::optional<int> parse_command_line(CLI::App& app, int argc,
                                                    const char* const* argv);

/// Prints @a json in one line of printable ASCII: other characters are escaped, and bytes that are
/// not UTF-8 become U+FFFD.
void print_json(std::ostream& out, const nlohmann::json& json);

}  // namespace tools
