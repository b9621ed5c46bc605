#include "status.h"

#include <sys/stat.h>

#include <algorithm>
#include <string_view>

#include "agent_files.h"
#include "common/kept_settings.h"
#include "log_messages.h"
#include "log_reader.h"
#include "log_runs.h"
#include "published_digest.h"
#include "traces.h"
#include "utility/file.h"
#include "xml/config.h"

namespace host {

namespace {

using tools::Severity;

constexpr std::size_t kSearchBytes = std::size_t{4} * 1024 * 1024;

/// A run that ends normally removes its work directory within this time of its last line. A
/// directory that changed later is another run's.
constexpr std::time_t kReleaseSeconds = 2;

/// What a log line says about the cause of a failure.
struct Cause {
  const char* format;
  const char* text;
};

constexpr Cause kCauses[] = {
    {log_messages::kSoftConfigUnreadable, "config.xml cannot be read"},
    {log_messages::kSoftVersionUnknown, "the server's version file is missing or unusable"},
    {log_messages::kSoftPackageDownloadFailed, "the agent package could not be downloaded"},
    {log_messages::kSoftUnpackFailed, "the agent package could not be unpacked"},
    {log_messages::kSoftScriptFailed, "the agent package's script failed"},
    {log_messages::kSoftInstallFailed, "config.xml cannot be read"},
    {log_messages::kSoftCarryOverFailed, "the agent package left no readable config.xml"},
    {log_messages::kKernelListDownloadFailed, "a module's digest could not be downloaded"},
    {log_messages::kKernelListUnreadable, "the server sent an empty digest list"},
    {log_messages::kKernelListAbnormal,
     "a digest list has several lines: no build for this kernel, or an error page"},
    {log_messages::kKernelModuleDownloadFailed, "a module could not be downloaded"},
    {log_messages::kKernelModuleRefused, "a module does not have the published digest"},
    {log_messages::kKernelFailed, "config.xml changed during the run"},
    {log_messages::kNginxDownloading,
     "the web server program could not be downloaded, or is no program"},
    {log_messages::kNginxFailed,
     "a setting, an argument or the server's identification is missing"},
    {log_messages::kRulesRefused, "the rules do not have the published digest"},
    {log_messages::kRulesFailed, "the rules could not be downloaded"},
    {log_messages::kRulesCurrent, "the digest of the rules could not be downloaded"},
};

/// The cause that the oldest line of the failing step gives.
std::string failure_reason(const LoggedRun& run) {
  std::string reason;
  bool transfer_failed = false;
  for (auto line = run.lines.rbegin(); line != run.lines.rend(); ++line) {
    const bool ends_step = line->format == log_messages::kKernelCurrent ||
                           line->format == log_messages::kKernelUpdated;
    if (ends_step) break;
    if (!line->type) transfer_failed = true;
    for (const Cause& cause : kCauses) {
      if (cause.format == line->format) reason = cause.text;
    }
  }
  return transfer_failed ? reason + ": a transfer failed" : reason;
}

const char* updated_reason(UpdateType type) {
  constexpr const char* kReasons[] = {
      "a new agent was installed", "new kernel modules were installed",
      "a new web server program was installed", "new rules were installed"};
  return kReasons[index(type)];
}

const char* current_reason(UpdateType type) {
  constexpr const char* kReasons[] = {"the agent is current", "the kernel modules are current",
                                      "the web server program is current", "the rules are current"};
  return kReasons[index(type)];
}

/// Seconds since the epoch; nothing if there is no such file.
std::optional<std::time_t> modified(const std::string& path) {
  struct stat status = {};
  if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
  return status.st_mtime;
}

/// Reads everything that changes while updaters run, once.
class Snapshot {
 public:
  Snapshot(const HostFacts& facts, const StatusOptions& options)
      : facts_(facts), options_(options) {
    read_log();
    updaters_ = find_updaters(facts.install_dir);  // after the log: see read_status
    status_.agent = agent_state(facts.install_dir);
    for (const UpdateType type : kUpdateTypes) {
      if (is_wanted(type)) status_.types.push_back(type_status(type));
    }
    report_unowned();
    report_lost_settings();
  }

  [[nodiscard]] const Status& status() const { return status_; }

 private:
  void read_log() {
    const std::string path = facts_.install_dir + agent_files::kLog;
    LogReader reader(path, options_.all ? LogReader::kNoLimit : kSearchBytes);
    std::string_view line;
    while (!has_enough() && reader.next(line)) finder_.add(line, reader.written());
    limit_reached_ = reader.limit_reached();
    for (const std::string& file : reader.unreadable()) {
      log_is_readable_ = false;
      report("log-unreadable", Severity::kWarning, file,
             "the log cannot be read, so runs may be missing here", "run norvak_host as root");
    }
    if (!utility::exists(path) && log_is_readable_) {
      report("log-missing", Severity::kWarning, path,
             "there is no update log: no run was started yet, or the directory is missing and the "
             "updater's messages are lost",
             "create the directory if it is missing");
    }
  }

  /// Whether the last run of every type in question is known.
  [[nodiscard]] bool has_enough() const {
    return std::all_of(kUpdateTypes.begin(), kUpdateTypes.end(), [this](UpdateType type) {
      const std::vector<UpdateType>& types = options_.types;
      const bool asked_for =
          types.empty() || std::find(types.begin(), types.end(), type) != types.end();
      return !asked_for || finder_.collector(type).complete();
    });
  }

  /// Whether @a type was asked for or, if no type was, the host shows traces of it.
  [[nodiscard]] bool is_wanted(UpdateType type) const {
    const std::vector<UpdateType>& types = options_.types;
    if (!types.empty()) return std::find(types.begin(), types.end(), type) != types.end();
    if (run_of(type) || is_running(updaters_, type)) return true;
    const std::vector<std::string> paths = leftovers(facts_.install_dir, type);
    return std::any_of(paths.begin(), paths.end(),
                       [this](const std::string& path) { return !is_too_old(path); });
  }

  /// The last run that the log shows, unless it ended too long ago.
  [[nodiscard]] std::optional<LoggedRun> run_of(UpdateType type) const {
    const RunCollector& collector = finder_.collector(type);
    if (!collector.found()) return std::nullopt;
    LoggedRun run = collector.run();
    if (options_.since && run.lines.back().epoch() < *options_.since) return std::nullopt;
    return run;
  }

  /// Whether the file was last changed before the time that --since names.
  [[nodiscard]] bool is_too_old(const std::string& path) const {
    return options_.since && modified(path).value_or(0) < *options_.since;
  }

  TypeStatus type_status(UpdateType type) {
    TypeStatus result;
    result.type = type;
    const std::optional<LoggedRun> run = run_of(type);
    if (run) {
      result.first_line = run->lines.front().epoch();
      result.last_line = run->lines.back().epoch();
      for (const LogLine& line : run->lines) result.lines.emplace_back(line.text);
    }
    if (is_running(updaters_, type)) {
      decide(result, Outcome::kRunning, "an updater is running");
      return result;
    }
    result.leftovers = leftovers(facts_.install_dir, type);
    const std::string newer = newer_leftover(result);
    if (!newer.empty()) {
      decide(result, Outcome::kUnfinished,
             "a run was interrupted: " + newer + " is newer than the last result in the log");
    } else if (run) {
      judge(result, *run);
    } else {
      decide(result, Outcome::kUnknown, missing_reason());
    }
    rate(result);
    allow_for_hidden_updaters(result);
    return result;
  }

  /// The leftover of a run that left no result in the log; empty if there is none.
  [[nodiscard]] std::string newer_leftover(const TypeStatus& type) const {
    for (const std::string& path : type.leftovers) {
      const std::time_t time = modified(path).value_or(0);
      const bool is_newer = !type.last_line || time >= *type.last_line + kReleaseSeconds;
      if (is_newer && !is_too_old(path)) return path;
    }
    return "";
  }

  void judge(TypeStatus& result, const LoggedRun& run) {
    switch (run.verdict) {
      case Verdict::kUpdated:
        decide(result, Outcome::kUpdated, updated_reason(result.type));
        break;
      case Verdict::kNothingToDo:
        judge_current(result);
        break;
      case Verdict::kRefused:
        decide(result, Outcome::kRefused, "automatic updates are disabled on this host");
        break;
      case Verdict::kFailed:
        decide(result, Outcome::kFailed, failure_reason(run));
        break;
      case Verdict::kUnfinished:
        decide(result, Outcome::kUnfinished, "the log ends in the middle of the run");
        break;
      case Verdict::kUnknown:
        decide(result, Outcome::kUnknown, "runs overlap in the log, or part of it is missing");
        break;
    }
  }

  /// Kernel and rule runs that cannot do their work write the same line as those that find nothing
  /// to do. The state of the host tells them apart.
  void judge_current(TypeStatus& result) {
    std::string obstacle;
    if (result.type == UpdateType::kKernel) obstacle = kernel_obstacle();
    if (result.type == UpdateType::kRules) obstacle = rules_obstacle();
    if (obstacle.empty()) {
      decide(result, Outcome::kNothingToDo, current_reason(result.type));
    } else {
      decide(result, Outcome::kUnknown, "the run may have done nothing: " + obstacle);
    }
  }

  [[nodiscard]] std::string kernel_obstacle() const {
    std::string server;
    if (config::get_config_var(facts_.install_dir + agent_files::kConfig, config::kKernelUpdateHost,
                               server) != 0) {
      return "config.xml cannot be read";
    }
    return server.empty() ? "kernel_update_host is not set" : "";
  }

  [[nodiscard]] std::string rules_obstacle() const {
    for (const char* const module : {agent_files::kTesselModule, agent_files::kQuorinModule}) {
      const std::string path = agent_files::module_path(facts_.install_dir, module);
      if (!utility::exists(path)) return path + " does not exist";
    }
    const std::string record = facts_.install_dir + agent_files::kCurrentRulesDigest;
    return published_digest::current_rules(record) ? "" : record + " cannot be read";
  }

  [[nodiscard]] std::string missing_reason() const {
    if (!log_is_readable_) return "the log cannot be read";
    if (options_.since) return "no run since then";
    if (limit_reached_) return "no run in the last 4 MiB of the log; --all searches all of it";
    return "no run in the log";
  }

  static void decide(TypeStatus& type, Outcome outcome, const std::string& reason) {
    type.outcome = outcome;
    type.reason = reason;
    switch (outcome) {
      case Outcome::kUpdated:
      case Outcome::kNothingToDo:
      case Outcome::kRunning:
        type.level = Level::kOk;
        break;
      case Outcome::kRefused:
        type.level = Level::kWarning;
        break;
      case Outcome::kFailed:
      case Outcome::kUnfinished:
        type.level = Level::kCritical;
        break;
      case Outcome::kUnknown:
        type.level = Level::kUnknown;
        break;
    }
  }

  /// Raises the level of good results that are old, or that left the agent down.
  void rate(TypeStatus& type) const {
    if (type.level != Level::kOk) return;
    if (options_.max_age && std::time(nullptr) - *type.last_line > *options_.max_age) {
      type.level = Level::kWarning;
      type.reason += "; the run was too long ago";
    }
    const bool stops_agent = type.type == UpdateType::kSoft || type.type == UpdateType::kRules;
    if (type.outcome != Outcome::kUpdated || !stops_agent) return;
    if (status_.agent == AgentState::kDown) {
      type.level = Level::kCritical;
      type.reason += "; the agent is not running";
    } else if (status_.agent == AgentState::kUnknown) {
      type.level = Level::kUnknown;
      type.reason += "; whether the agent is running is not known";
    }
  }

  /// An updater of another user may work on this install directory, or on another one.
  void allow_for_hidden_updaters(TypeStatus& type) {
    for (const RunningUpdater& updater : updaters_) {
      if (updater.type != type.type || updater.certain) continue;
      report("process-unreadable", Severity::kNote, "/proc/" + std::to_string(updater.pid),
             std::string("an updater of the type ") + type_name(type.type) +
                 " runs, but its install directory cannot be read",
             "run norvak_host as root");
      if (type.outcome == Outcome::kUnfinished) {
        decide(type, Outcome::kUnknown,
               "the run may still be in progress: see the note on its process");
      }
    }
  }

  void report_unowned() {
    for (const LogLine& line : finder_.unowned()) {
      if (options_.since && line.epoch() < *options_.since) continue;
      const bool unknown_type = line.format == log_messages::kUnknownType;
      report(unknown_type ? "unknown-type" : "unowned-transfer", Severity::kNote,
             facts_.install_dir + agent_files::kLog,
             (unknown_type ? "an updater was started with an unknown update type: "
                           : "a transfer failed in a run that the log does not identify: ") +
                 std::string(line.text),
             unknown_type ? "correct the command line of the timer or script" : "");
    }
  }

  void report_lost_settings() {
    const std::string config = facts_.install_dir + agent_files::kConfig;
    const std::optional<tools::KeptSettings> kept = tools::read_kept_settings();
    if (!kept) return;
    for (const tools::LostSetting& setting : tools::lost_settings(*kept, config)) {
      report("setting-not-carried-over", Severity::kWarning, config,
             "an update was interrupted, and " + setting.name + " is \"" + setting.found +
                 "\" instead of \"" + setting.expected + "\"",
             "correct the setting, or remove " + tools::kept_settings_path() + " to accept it");
    }
  }

  void report(const char* code, Severity severity, const std::string& file, const std::string& text,
              const std::string& fix) {
    status_.findings.push_back({code, severity, file, text, fix});
  }

  const HostFacts& facts_;
  const StatusOptions& options_;
  std::vector<RunningUpdater> updaters_;
  RunFinder finder_;
  bool limit_reached_ = false;
  bool log_is_readable_ = true;
  Status status_;
};

}  // namespace

const char* outcome_name(Outcome outcome) {
  constexpr const char* kNames[] = {"updated", "nothing-to-do", "running", "refused",
                                    "failed",  "unfinished",    "unknown"};
  return kNames[static_cast<std::size_t>(outcome)];
}

Status read_status(const HostFacts& facts, const StatusOptions& options) {
  Status status = Snapshot(facts, options).status();
  const bool unfinished =
      std::any_of(status.types.begin(), status.types.end(),
                  [](const TypeStatus& type) { return type.outcome == Outcome::kUnfinished; });
  // A run that ended between the reading of the log and that of the processes looks interrupted.
  return unfinished ? Snapshot(facts, options).status() : status;
}

Level worst_level(const Status& status) {
  if (status.types.empty()) return Level::kUnknown;
  for (const Level level : {Level::kCritical, Level::kWarning, Level::kUnknown}) {
    if (std::any_of(status.types.begin(), status.types.end(),
                    [level](const TypeStatus& type) { return type.level == level; })) {
      return level;
    }
  }
  return Level::kOk;
}

}  // namespace host
