#include "recovery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "agent.h"
#include "agent_files.h"
#include "agent_processes.h"
#include "common/kept_settings.h"
#include "common/state_file.h"
#include "help.h"
#include "processes.h"
#include "run_record.h"
#include "scope.h"
#include "utility/file.h"
#include "utility/unix_helper.h"
#include "version.h"
#include "wait.h"
#include "xml/config.h"

namespace recover {

namespace {

using host::UpdateType;
using utility::CUnixHelper;

constexpr int kQuietSeconds = 600;        // for updaters and what they started to end
constexpr int kOwnServiceSeconds = 60;    // for the agent's own service, after a boot
constexpr int kReturnSeconds = 30;        // for the agent to return after a rule update
constexpr int kStartSeconds = 30;         // for startup.sh to start the agent
constexpr int kPidFileSeconds = 5;        // for startup.sh to write norvak.pid
constexpr mode_t kNewProgramMode = 0755;  // of a web server program that did not exist before
constexpr mode_t kPermissionBits = 07777;

void report(const std::string& text) { std::fprintf(stderr, "norvak_recover: %s\n", text.c_str()); }

/// Whether an agent can be installed in this directory. The empty path would be the root directory.
bool is_usable(const std::string& install_dir) {
  return install_dir.size() > 1 && install_dir[0] == '/' &&
         install_dir.find_first_not_of('/') != std::string::npos;
}

/// An updater ends its part of the log with an empty line.
bool log_is_unfinished(const std::string& install_dir) {
  const utility::Descriptor log(
      ::open((install_dir + agent_files::kLog).c_str(), O_RDONLY | O_CLOEXEC));
  char end[2] = {'\n', '\n'};
  const off_t size = log ? ::lseek(log.get(), 0, SEEK_END) : 0;
  const bool read = size > 1 && ::pread(log.get(), end, sizeof end, size - 2) == sizeof end;
  return read && (end[0] != '\n' || end[1] != '\n');
}

std::vector<std::string> left_behind(const std::string& install_dir) {
  std::vector<std::string> paths;
  for (const char* const dir : agent_files::kWorkDirs) {
    if (utility::exists(install_dir + dir)) paths.push_back(install_dir + dir);
  }
  return paths;
}

bool has_marker(const std::string& install_dir) {
  return utility::exists(install_dir + agent_files::kUpdateMarker);
}

std::optional<mode_t> permission_bits(const std::string& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return status.st_mode & kPermissionBits;
}

void remove_settled_settings(const std::string& install_dir) {
  const std::optional<tools::KeptSettings> kept = tools::read_kept_settings();
  if (kept && tools::lost_settings(*kept, install_dir + agent_files::kConfig).empty()) {
    tools::remove_kept_settings();
  }
}

/// Keeps the settings of an interrupted agent update, if config.xml does not have them. Those of an
/// earlier update stay until they are restored: they are the original ones.
void keep_settings(const RunRecord& record, const std::string& install_dir) {
  remove_settled_settings(install_dir);
  const bool known = !record.version.empty() || !record.update_type.empty();
  const std::string offered = install_dir + agent_files::kSoftVersionFile;
  // The updater has this file from before the installation until after the carry-over.
  if (!known || !utility::exists(offered) || tools::read_kept_settings()) return;
  const tools::KeptSettings kept = {record.version, record.update_type,
                                    version::read_version_file(offered).value_or("")};
  const std::vector<tools::LostSetting> lost =
      tools::lost_settings(kept, install_dir + agent_files::kConfig);
  if (lost.empty()) return;
  for (const tools::LostSetting& setting : lost) {
    report("config.xml: " + setting.name + " is \"" + setting.found + "\" and should be \"" +
           setting.expected + "\"");
  }
  if (!tools::write_kept_settings(kept)) report("the settings before the update cannot be saved");
}

/// The updater kills what norvak.pid names; with 0 or a negative number that is far more than one
/// process. Nothing points to an interrupted run here, so the file stays if the process may be the
/// agent.
void remove_dangerous_pid_file(const std::string& install_dir) {
  const std::string path = install_dir + agent_files::kPid;
  const std::optional<pid_t> pid = CHelper::read_pid(path);
  if (!pid || (*pid > 0 && (!host::is_alive(*pid) || may_be_agent(*pid, install_dir)))) return;
  report("removed " + path + ": it named something other than the agent");
  (void)::unlink(path.c_str());
}

/// Whether norvak.pid is missing or names the agent.
bool pid_file_is_right(const std::string& install_dir) {
  const std::optional<pid_t> pid = CHelper::read_pid(install_dir + agent_files::kPid);
  if (!pid) return true;
  const std::vector<pid_t> agents = find_processes(install_dir).agents;
  return *pid > 0 && std::find(agents.begin(), agents.end(), *pid) != agents.end();
}

/// Waits first if there is a startup.sh or an agent, which may be about to replace the file.
void repair_pid_file(const std::string& install_dir) {
  const InstallDirProcesses found = find_processes(install_dir);
  const bool may_change = !found.agents.empty() || !found.startup_scripts.empty();
  const auto is_right = [&] { return pid_file_is_right(install_dir); };
  if (wait_until(may_change ? kPidFileSeconds : 0, is_right)) return;
  const std::string path = install_dir + agent_files::kPid;
  report("removed " + path + ": it does not name the agent");
  (void)::unlink(path.c_str());
}

bool wait_until_quiet(const std::string& install_dir) {
  return wait_until(kQuietSeconds, [&] {
    return host::find_updaters(install_dir).empty() && find_processes(install_dir).workers.empty();
  });
}

/// @return false if there is still no agent
bool restore_agent(const std::string& install_dir) {
  const auto is_up = [&] { return agent_is_up(install_dir); };
  // A running startup.sh may be about to start the agent, and another one would start a second. One
  // that does not may be what is left of an earlier agent.
  const bool is_starting = !find_processes(install_dir).startup_scripts.empty();
  if (wait_until(is_starting ? kStartSeconds : 0, is_up)) return true;
  report("starting the agent");
  start_agent(install_dir);
  if (wait_until(kStartSeconds, is_up)) return true;
  report("the agent does not run: " + install_dir + agent_files::kStartupScript +
         " did not start it");
  return false;
}

void restore_nginx(const RunRecord& record, const std::string& install_dir) {
  const std::string program = install_dir + agent_files::kInstalledNginx;
  const mode_t mode = record.mode.value_or(kNewProgramMode);
  const std::optional<mode_t> found = permission_bits(program);
  if (found && *found != mode && ::chmod(program.c_str(), mode) != 0) {
    report("cannot change the mode of " + program + ": " + std::strerror(errno));
  }
}

/// After a power cut the program can be incomplete while the line that identifies it is not.
/// Without that line the next run installs the program again.
void forget_nginx(const std::string& install_dir) {
  const std::string path = install_dir + agent_files::kInstalledNginxMd5;
  if (::unlink(path.c_str()) == 0) {
    report("removed " + path + ": run the update of the web server program again");
  }
}

void remove_left_behind(const std::string& install_dir) {
  for (const std::string& path : left_behind(install_dir)) {
    if (CHelper::remove_file(path) == 0) {
      report("removed " + path);
    } else {
      report("cannot remove " + path);
    }
  }
  const std::string marker = install_dir + agent_files::kUpdateMarker;
  if (::unlink(marker.c_str()) == 0) report("removed " + marker);
}

/// What is known about the interrupted run; nothing if there is no evidence of one.
std::optional<RunRecord> find_interrupted_run(const std::string& install_dir) {
  std::optional<RunRecord> record = read_run_record();
  const bool evidence = has_marker(install_dir) || !left_behind(install_dir).empty() ||
                        log_is_unfinished(install_dir);
  if (!record && evidence) {
    // The run was started by hand. Without the marker, it ended before it could stop the agent.
    record = RunRecord();
    record->agent_ran = has_marker(install_dir);
    record->boot_time = boot_time();
  }
  return record;
}

}  // namespace

Result begin_run(UpdateType type, bool restore_agent) {
  const std::string install_dir = CUnixHelper::get_norvak_path();
  if (!is_usable(install_dir)) return Result::kNoAgent;
  if (read_run_record() || has_marker(install_dir) || !left_behind(install_dir).empty()) {
    return Result::kRecoveryNeeded;
  }
  const std::string config = install_dir + agent_files::kConfig;
  if (!utility::exists(config)) return Result::kNoAgent;
  remove_settled_settings(install_dir);
  remove_dangerous_pid_file(install_dir);

  RunRecord record;
  record.type = type;
  record.agent_ran = restore_agent && !find_processes(install_dir).agents.empty();
  record.boot_time = boot_time();
  if (type == UpdateType::kSoft) {
    record.version = config::get_config_var(config, config::kVersion);
    record.update_type = config::get_config_var(config, config::kUpdateType);
  }
  if (type == UpdateType::kNginx) {
    record.mode = permission_bits(install_dir + agent_files::kInstalledNginx);
  }
  if (write_run_record(record)) return Result::kDone;
  report(std::string("cannot write to ") + tools::kStateDir);
  return Result::kFailed;
}

Result end_run(UpdateType type) {
  const std::string install_dir = CUnixHelper::get_norvak_path();
  const std::optional<RunRecord> record = read_run_record();
  if (!record) return Result::kDone;
  if (type == UpdateType::kSoft && is_in_own_unit() && !move_companions_to_scope()) {
    report("the agent gets no scope of its own and will be started again; is D-Bus running?");
    return Result::kFailed;
  }
  if (type == UpdateType::kNginx) restore_nginx(*record, install_dir);
  if (record->agent_ran && !wait_until(kReturnSeconds, [&] { return agent_is_up(install_dir); })) {
    return Result::kRecoveryNeeded;
  }
  ::sync();  // before the record is removed: after a power cut nothing else leads to a repair
  remove_run_record();
  return Result::kDone;
}

Result recover(bool at_boot) {
  const std::string install_dir = CUnixHelper::get_norvak_path();
  if (!is_usable(install_dir)) return Result::kDone;
  if (!find_interrupted_run(install_dir)) return Result::kDone;
  if (!wait_until_quiet(install_dir)) {
    report("an update is still running in " + install_dir);
    return Result::kFailed;
  }
  // An updater that ended meanwhile has cleaned up after itself.
  const std::optional<RunRecord> run = find_interrupted_run(install_dir);
  if (!run) return Result::kDone;
  if (!write_run_record(*run)) {  // before the marker is removed: this may be interrupted, too
    report(std::string("cannot write to ") + tools::kStateDir);
    return Result::kFailed;
  }
  const bool rebooted = at_boot || was_rebooted_since(*run);
  if (run->agent_ran && rebooted) {
    (void)wait_until(kOwnServiceSeconds, [&] { return agent_is_up(install_dir); });
  }
  keep_settings(*run, install_dir);
  if (run->type == UpdateType::kNginx) {
    restore_nginx(*run, install_dir);
    if (rebooted) forget_nginx(install_dir);
  }
  remove_left_behind(install_dir);
  repair_pid_file(install_dir);
  const bool restored = !run->agent_ran || restore_agent(install_dir);
  ::sync();
  remove_run_record();
  return restored ? Result::kDone : Result::kFailed;
}

std::string rotatable_log() {
  const std::string install_dir = CUnixHelper::get_norvak_path();
  const std::string path = install_dir + agent_files::kLog;
  const bool is_plain = std::all_of(path.begin(), path.end(), [](unsigned char c) {
    return c > ' ' && std::strchr("\"'\\`$*?[]{}#", c) == nullptr;
  });
  return is_usable(install_dir) && is_plain && utility::exists(path) ? path : "";
}

}  // namespace recover
