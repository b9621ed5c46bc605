// norvak_host: shows the state of a host, and what the next update would do. Read-only.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "common/terminal.h"
#include "host_facts.h"
#include "status.h"
#include "status_output.h"
#include "update_type.h"

namespace {

constexpr char kExamples[] =
    "Examples:\n"
    "  norvak_host status                      the last run of each type\n"
    "  norvak_host status --plugin --max-age 2d\n"
    "  norvak_host status kernel --json | jq -r '.types[].outcome'\n";

struct CommandLine {
  tools::ColorMode color = tools::ColorMode::kAuto;
  bool json = false;
  bool plugin = false;
  std::string prometheus;
  host::StatusOptions status;
};

/// "90s", "15m", "36h" or "2d" in seconds; nothing for anything else.
std::optional<std::time_t> parse_duration(const std::string& text) {
  constexpr std::size_t kMaxDigits = 9;
  const std::size_t digits = text.find_first_not_of("0123456789");
  if (digits == 0 || digits > kMaxDigits || digits + 1 != text.size()) return std::nullopt;
  const std::time_t count = std::stol(text.substr(0, digits));
  switch (text[digits]) {
    case 's':
      return count;
    case 'm':
      return count * 60;
    case 'h':
      return count * 3600;
    case 'd':
      return count * 86400;
    default:
      return std::nullopt;
  }
}

void add_status(CLI::App& app, CommandLine& line) {
  CLI::App* const status = app.add_subcommand("status", "Show what became of the last runs");
  status
      ->add_option_function<std::vector<std::string>>(
          "type",
          [&line](const std::vector<std::string>& names) {
            for (const host::UpdateType type : host::kUpdateTypes) {
              const auto named = std::find(names.begin(), names.end(), host::type_name(type));
              if (named != names.end()) line.status.types.push_back(type);
            }
          },
          "soft, kernel, nginx or rules; without one, the types found")
      ->check(CLI::IsMember({"soft", "kernel", "nginx", "rules"}))
      ->type_name("TYPE");
  status
      ->add_option_function<std::string>(
          "--max-age",
          [&line](const std::string& text) { line.status.max_age = parse_duration(text); },
          "Warn when the last good run is older: a number followed by s, m, h or d")
      ->check(CLI::Validator(
          [](const std::string& text) {
            return parse_duration(text) ? "" : "not a number followed by s, m, h or d: " + text;
          },
          ""))
      ->type_name("DURATION");
  status
      ->add_option_function<std::time_t>(
          "--since", [&line](std::time_t since) { line.status.since = since; },
          "Ignore runs that ended before this time, in seconds since 1970")
      ->check(CLI::NonNegativeNumber)
      ->type_name("EPOCH");
  status->add_flag("--all", line.status.all, "Search the whole log, not only the last 4 MiB");
  CLI::Option* const json = status->add_flag("--json", line.json, "Print one JSON object");
  CLI::Option* const plugin = status->add_flag(
      "--plugin", line.plugin, "Print one line in the format of the Monitoring Plugins");
  CLI::Option* const prometheus =
      status
          ->add_option("--prometheus", line.prometheus,
                       "Replace FILE by metrics for node_exporter's textfile collector")
          ->type_name("FILE");
  json->excludes(plugin, prometheus);
  plugin->excludes(prometheus);
}

int run_status(const CommandLine& line) {
  const host::HostFacts facts = host::read_host_facts();
  const host::Status status = host::read_status(facts, line.status);
  if (!line.prometheus.empty()) {
    if (host::replace_file(line.prometheus, host::prometheus_metrics(status))) return 0;
    std::cerr << "norvak_host: cannot write " << line.prometheus << ": " << std::strerror(errno)
              << "\n";
    return static_cast<int>(host::Level::kUnknown);
  }
  if (line.json) {
    host::print_status_json(std::cout, facts, status);
  } else if (line.plugin) {
    host::print_status_plugin(std::cout, status, line.status);
  } else {
    const tools::Painter paint(tools::use_color(line.color, STDOUT_FILENO));
    host::print_status_table(std::cout, paint, status);
  }
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "norvak_host: cannot write to standard output\n";
    return static_cast<int>(host::Level::kUnknown);
  }
  return static_cast<int>(host::worst_level(status));
}

int run(int argc, char** argv) {
  CommandLine line;
  CLI::App app("Shows the state of a host, and what the next update would do. Changes nothing.",
               "norvak_host");
  app.footer(kExamples);
  app.require_subcommand(1);
  app.fallthrough();
  tools::add_version_option(app);
  tools::add_color_option(app, line.color);
  add_status(app, line);
  const std::optional<int> ended = tools::parse_command_line(app, argc, argv);
  return ended ? *ended : run_status(line);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "norvak_host: " << error.what() << "\n";
    return static_cast<int>(host::Level::kUnknown);
  }
}
