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
#include "identify.h"
#include "preview.h"
#include "preview_output.h"
#include "status.h"
#include "status_output.h"
#include "update_type.h"

namespace {

constexpr char kExamples[] =
    "Examples:\n"
    "  norvak_host identify                     how the updater identifies this host\n"
    "  norvak_host preview                      what runs would do now\n"
    "  norvak_host preview nginx 1.24.0 64-bit --check\n"
    "  norvak_host status                       what became of the last runs\n"
    "  norvak_host status kernel --plugin --max-age 2d";

constexpr int kClean = 0;
constexpr int kNotClean = 1;
constexpr int kUpdateAvailable = 100;  // the number that `dnf check-update` uses for this

struct CommandLine {
  tools::ColorMode color = tools::ColorMode::kAuto;
  bool json = false;
  bool check = false;
  bool plugin = false;
  std::string prometheus;
  std::vector<std::string> preview_arguments;
  host::PreviewOptions preview;
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

/// Interprets the arguments of `preview`: nothing, or a type, with version and word size for nginx.
void apply_preview_arguments(CommandLine& line) {
  const std::vector<std::string>& arguments = line.preview_arguments;
  if (arguments.empty()) return;
  const bool is_nginx = arguments[0] == host::type_name(host::UpdateType::kNginx);
  if (is_nginx != (arguments.size() == 3) || (!is_nginx && arguments.size() > 1)) {
    throw CLI::ValidationError("type", is_nginx ? "nginx needs VERSION and WORD_SIZE"
                                                : "only nginx has further arguments");
  }
  for (const host::UpdateType type : host::kUpdateTypes) {
    if (arguments[0] == host::type_name(type)) {
      line.preview.types = {type};
      if (is_nginx) {
        line.preview.nginx_version = arguments[1];
        line.preview.nginx_word_size = arguments[2];
      }
      return;
    }
  }
  throw CLI::ValidationError("type", arguments[0] + " is not soft, kernel, rules or nginx");
}

CLI::App* add_identify(CLI::App& app, CommandLine& line) {
  CLI::App* const identify =
      app.add_subcommand("identify", "Show how the updater identifies this host");
  identify->add_flag("--json", line.json, "Print one JSON object");
  return identify;
}

CLI::App* add_preview(CLI::App& app, CommandLine& line) {
  constexpr long kMaxSeconds = 86400;
  CLI::App* const preview = app.add_subcommand("preview", "Show what runs would do now, and why");
  preview
      ->add_option("type", line.preview_arguments,
                   "soft (an automatic run), kernel, rules, or nginx VERSION WORD_SIZE; without "
                   "one, the first three")
      ->expected(-1)
      ->type_name("TYPE");
  preview->add_flag("--json", line.json, "Print one JSON object");
  preview->add_flag("--check", line.check, "Exit with 100 if something would be installed");
  preview
      ->add_option("--timeout", line.preview.timeout,
                   "Time limit of each transfer in seconds (default: 30)")
      ->check(CLI::Range(1L, kMaxSeconds))
      ->type_name("SECONDS");
  preview->callback([&line] { apply_preview_arguments(line); });
  return preview;
}

CLI::App* add_status(CLI::App& app, CommandLine& line) {
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
                       "Replace FILE with metrics for node_exporter's textfile collector")
          ->type_name("FILE");
  json->excludes(plugin, prometheus);
  plugin->excludes(prometheus);
  return status;
}

/// @return @a status, unless standard output could not be written
int end_output(int status, int failure) {
  std::cout.flush();
  if (std::cout) return status;
  std::cerr << "norvak_host: cannot write to standard output\n";
  return failure;
}

int run_identify(const CommandLine& line) {
  const host::HostFacts facts = host::read_host_facts();
  const host::Settings settings = host::read_settings(facts.install_dir);
  if (line.json) {
    host::print_identity_json(std::cout, facts, settings);
  } else {
    const tools::Painter paint(tools::use_color(line.color, STDOUT_FILENO));
    host::print_identity(std::cout, paint, facts, settings);
  }
  return end_output(kClean, kNotClean);
}

int run_preview(const CommandLine& line) {
  const host::HostFacts facts = host::read_host_facts();
  const host::Settings settings = host::read_settings(facts.install_dir);
  const host::Preview preview = host::preview_updates(facts, settings, line.preview);
  if (line.json) {
    host::print_preview_json(std::cout, facts, preview);
  } else {
    const tools::Painter paint(tools::use_color(line.color, STDOUT_FILENO));
    host::print_preview_table(std::cout, paint, preview);
  }
  int status = host::is_clean(preview) ? kClean : kNotClean;
  if (status == kClean && line.check && host::has_update(preview)) status = kUpdateAvailable;
  return end_output(status, kNotClean);
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
  return end_output(static_cast<int>(host::worst_level(status)),
                    static_cast<int>(host::Level::kUnknown));
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
  const CLI::App* const identify = add_identify(app, line);
  const CLI::App* const preview = add_preview(app, line);
  add_status(app, line);
  const std::optional<int> ended = tools::parse_command_line(app, argc, argv);
  if (ended) return *ended;
  if (identify->parsed()) return run_identify(line);
  return preview->parsed() ? run_preview(line) : run_status(line);
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
