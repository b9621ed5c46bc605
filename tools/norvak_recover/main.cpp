// norvak_recover: repairs what an interrupted update has left on a host.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <map>
#include <optional>
#include <string>

#include "common/command_line.h"
#include "host_lock.h"
#include "recovery.h"
#include "update_type.h"

namespace {

constexpr int kNoLock = 75;  // EX_TEMPFAIL of sysexits.h

struct CommandLine {
  bool at_boot = false;
  bool locked = false;
  bool leave_stopped = false;
  host::UpdateType type = host::UpdateType::kSoft;
};

void add_type(CLI::App& command, CommandLine& line) {
  static const std::map<std::string, host::UpdateType> types = [] {
    std::map<std::string, host::UpdateType> names;
    for (const host::UpdateType type : host::kUpdateTypes) names[host::type_name(type)] = type;
    return names;
  }();
  command
      .add_option_function<std::string>(
          "type", [&line](const std::string& name) { line.type = types.at(name); },
          "soft, kernel, nginx or rules")
      ->required()
      ->check(CLI::IsMember({"soft", "kernel", "nginx", "rules"}))
      ->type_name("TYPE");
}

int run(int argc, const char* const* argv) {
  CLI::App app(
      "Repairs what an interrupted update has left on this host: removes work directories,"
      " the marker and a wrong norvak.pid, and starts the agent if it ran before. Does"
      " nothing without evidence of an interrupted run.",
      "norvak_recover");
  CommandLine line;
  tools::add_version_option(app);
  app.add_flag("--boot", line.at_boot, "First wait up to 60 seconds for the agent's own service");
  app.add_flag("--locked", line.locked, "The caller holds the host lock");
  app.require_subcommand(0, 1);
  CLI::App* const begin = app.add_subcommand("begin", "Record that a run begins, for the units");
  add_type(*begin, line);
  begin->add_flag("--leave-stopped", line.leave_stopped,
                  "The agent stays stopped if the run stops it");
  const CLI::App* const log =
      app.add_subcommand("log-path", "Print the path of the update log, for its rotation");
  CLI::App* const end = app.add_subcommand("end", "Complete a run, for the units");
  add_type(*end, line);

  const std::optional<int> status = tools::parse_command_line(app, argc, argv);
  if (status) return *status;
  if (log->parsed()) {
    const std::string path = recover::rotatable_log();
    if (!path.empty()) std::puts(path.c_str());
    return 0;
  }
  const utility::Descriptor lock =
      line.locked ? utility::Descriptor(-1) : recover::take_host_lock();
  if (!line.locked && !lock) {
    std::fputs("norvak_recover: an update is running, or the state directory is missing\n", stderr);
    return kNoLock;
  }
  if (begin->parsed()) {
    return static_cast<int>(recover::begin_run(line.type, !line.leave_stopped));
  }
  if (end->parsed()) return static_cast<int>(recover::end_run(line.type));
  return static_cast<int>(recover::recover(line.at_boot));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "norvak_recover: %s\n", error.what());
    return static_cast<int>(recover::Result::kFailed);
  }
}
