#include "conditions.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "agent_files.h"
#include "help.h"
#include "processes.h"
#include "traces.h"
#include "utility/file.h"

namespace host {

namespace {

using tools::Severity;

/// Machine names for which both the agent package and the kernel modules are built.
constexpr std::array<const char*, 3> kServedMachines = {"x86_64", "i386", "i686"};

/// The largest process id of any Linux system: PID_MAX_LIMIT.
constexpr long long kMaxPid = 4194304;

/// What the shell would interpret in an install path.
constexpr char kShellCharacters[] = " \t\r\n\"'`$&|;<>()*?[]{}\\!#~";

/// The fix for a pid file with a dangerous number.
constexpr char kWritePidFileAtomically[] = "make startup.sh write the file atomically";

bool is_directory(const std::string& path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Whether the path @a path is @a directory or below it.
bool is_below(const std::string& path, const std::string& directory) {
  return path.compare(0, directory.size(), directory) == 0 &&
         (path.size() == directory.size() || path[directory.size()] == '/');
}

std::string shown(std::size_t bytes) {
  constexpr std::size_t kMiB = std::size_t{1} << 20U;
  return bytes < kMiB ? std::to_string(bytes) + " bytes" : std::to_string(bytes / kMiB) + " MiB";
}

}  // namespace

bool Conditions::check_host(UpdateType type) const {
  check_leftovers(type);
  check_running(type);
  if (!is_directory(facts_.install_dir)) {
    findings_.error("install-dir-missing", facts_.install_dir,
                    "the install directory does not exist: nothing can be downloaded",
                    "correct /var/log/version_control, or install the agent");
    return false;
  }
  const std::string log_directory =
      below(agent_files::kLog).substr(0, below(agent_files::kLog).rfind('/'));
  if (!is_directory(log_directory)) {
    findings_.warning("runlog-missing", log_directory,
                      "the directory of the update log does not exist: runs leave no trace",
                      "create it");
  } else {
    (void)check_writable("runlog-not-writable", log_directory, Severity::kWarning,
                         "log lines are lost");
  }
  return check_writable("install-dir-not-writable", facts_.install_dir, Severity::kError,
                        "nothing can be downloaded into it");
}

bool Conditions::check_writable(const char* code, const std::string& directory, Severity severity,
                                const char* consequence) const {
  if (::access(directory.c_str(), W_OK | X_OK) == 0) return true;
  if (::geteuid() != 0) {
    findings_.note("not-root", directory,
                   "this user may not write to the directory; whether root may is not known",
                   "run norvak_host as root");
    return true;
  }
  findings_.add(code, severity, directory,
                std::string("the directory is not writable: ") + consequence,
                "mount it writable, and remove attributes that protect it");
  return false;
}

void Conditions::check_leftovers(UpdateType type) const {
  if (is_running(find_updaters(facts_.install_dir), type)) return;
  for (const std::string& path : leftovers(facts_.install_dir, type)) {
    if (path == below(agent_files::kUpdateMarker)) {
      findings_.warning("leftover-marker", path,
                        "an interrupted run left the update marker; a run that installs nothing "
                        "does not remove it",
                        "make sure that the agent runs, then remove it");
    } else if (path == below(agent_files::kSoftWorkDir)) {
      findings_.warning("leftover-work-dir", path,
                        "an interrupted run left its work directory; a manual run takes the "
                        "version file in it for the new version",
                        "remove it while no update runs");
    } else {
      findings_.warning("leftover-work-dir", path, "an interrupted run left its work directory",
                        "none needed: the next run of this type removes it");
    }
  }
  if (type != UpdateType::kSoft) return;
  for (const std::string& path : config_leftovers(facts_.install_dir)) {
    findings_.warning("leftover-config", path,
                      "looks like a new version of config.xml that an interrupted run left",
                      "compare it with config.xml, then remove it while no update runs");
  }
}

void Conditions::check_running(UpdateType type) const {
  for (const RunningUpdater& updater : find_updaters(facts_.install_dir)) {
    if (updater.type != type || !updater.certain) continue;
    findings_.warning("updater-running", "/proc/" + std::to_string(updater.pid),
                      std::string("an updater of the type ") + type_name(type) +
                          " is running: two of them at the same time mix their downloads",
                      "wait until it has ended, and run updates under a lock");
  }
}

void Conditions::check_machine(UpdateType type) const {
  for (const char* const served : kServedMachines) {
    if (facts_.machine == served) return;
  }
  const bool soft = type == UpdateType::kSoft;
  findings_.error("machine-without-builds", facts_.machine,
                  soft ? "there is no agent package for this machine; a run installs that for " +
                             facts_.package_arch
                       : "there are no kernel modules for this machine; a run installs those for " +
                             facts_.module_arch,
                  "do not update this host");
}

bool Conditions::check_address(const char* name, const std::string& url) const {
  const std::string config = below(agent_files::kConfig);
  if (url.empty()) {
    findings_.error("setting-missing", config,
                    std::string("the setting ") + name + " is missing or empty", "set it");
    return false;
  }
  if (url.back() == '/') {
    findings_.note(
        "address-ends-with-slash", config,
        std::string(name) + " ends with a slash, so that requests have two; most servers accept it",
        "remove the slash");
  }
  if (url.find("://") == std::string::npos) {
    findings_.note("address-without-scheme", config,
                   std::string(name) + " has no scheme: libcurl guesses HTTP",
                   "begin it with http://");
  }
  return true;
}

Conditions::Victim Conditions::check_pid_file() const {
  const std::string file = below(agent_files::kPid);
  const std::optional<pid_t> pid = CHelper::read_pid(file);
  if (!pid) {
    if (utility::exists(file)) {
      findings_.warning("pid-file-unreadable", file,
                        "the pid file cannot be read: the agent would not be stopped",
                        "run norvak_host as root, or let the agent write it again");
    }
    return Victim::kOthers;
  }
  if (*pid == 0) {
    findings_.error("pid-file-zero", file,
                    "the pid file is empty, not a number, or 0: a run that stops the agent kills "
                    "itself and its process group instead",
                    kWritePidFileAtomically);
    return Victim::kRun;
  }
  if (*pid < 0) {
    findings_.error("pid-file-negative", file,
                    "the pid file names " + std::to_string(*pid) +
                        (*pid == -1 ? ": a run that stops the agent kills every process of the host"
                                    : ": a run that stops the agent kills a process group"),
                    kWritePidFileAtomically);
    return Victim::kOthers;
  }
  check_pid(*pid, file);
  return Victim::kOthers;
}

/// Checks a positive process id, which `kill` takes for one process.
void Conditions::check_pid(pid_t pid, const std::string& file) const {
  const std::string text = utility::read_first_line(file, CHelper::kPidLimit).value_or("");
  if (std::strtoll(text.c_str(), nullptr, 10) != pid || pid > kMaxPid) {
    findings_.error(
        "pid-file-too-large", file,
        "the number in the pid file is too large for a process id: a run that stops the "
        "agent signals process " +
            std::to_string(pid),
        kWritePidFileAtomically);
    return;
  }
  if (!is_alive(pid)) {
    findings_.warning("pid-file-stale", file,
                      "the pid file names a process that does not exist: while the file stays, a "
                      "run kills whatever process gets this id",
                      "remove the file, or start the agent");
    return;
  }
  const std::optional<std::vector<std::string>> paths = process_paths(pid);
  if (!paths) {
    findings_.note("process-unreadable", "/proc/" + std::to_string(pid),
                   "this user may not examine the process in norvak.pid, so whether it is the "
                   "agent is not known",
                   "run norvak_host as root");
    return;
  }
  const std::unique_ptr<char, decltype(&std::free)> resolved(
      ::realpath(facts_.install_dir.c_str(), nullptr), &std::free);
  for (const std::string& path : *paths) {
    if (is_below(path, facts_.install_dir)) return;
    if (resolved && is_below(path, resolved.get())) return;  // /proc resolves symbolic links
  }
  findings_.error(
      "pid-file-foreign", file,
      "the pid file names process " + std::to_string(pid) +
          ", which does not look like the agent: neither its executable nor its working "
          "directory nor an argument is below the install directory. A run that stops "
          "the agent kills it",
      "remove the file, or start the agent");
}

bool Conditions::check_package_tools() const {
  bool usable = true;
  const std::string tar = below(agent_files::kTar);
  if (::access(tar.c_str(), X_OK) != 0) {
    findings_.error(
        "tar-missing", tar,
        "the agent's tar does not exist or is not executable: a run stops the agent and "
        "then cannot unpack the package",
        "install it");
    usable = false;
  }
  const std::string script = below(agent_files::kStartupScript);
  if (::access(script.c_str(), X_OK) != 0) {
    findings_.error("startup-missing", script,
                    "the startup script does not exist or is not executable: a run stops the agent "
                    "and does not start it again",
                    "install it");
  }
  if (facts_.install_dir.find_first_of(kShellCharacters) != std::string::npos) {
    findings_.error("install-dir-not-quoted", facts_.install_dir,
                    "the install path has characters that the shell interprets, and the updater "
                    "does not quote it: the package cannot be unpacked",
                    "install the agent under a plain path");
    usable = false;
  }
  return usable;
}

void Conditions::check_target(const char* suffix, const char* missing,
                              const char* not_writable) const {
  const std::string file = below(suffix);
  const std::string directory = file.substr(0, file.rfind('/'));
  const std::string consequence = "a run removes or loses the new file and still reports success";
  if (!is_directory(directory)) {
    findings_.error(missing, directory, "the directory does not exist: " + consequence,
                    "create it");
    return;
  }
  (void)check_writable(not_writable, directory, Severity::kError, consequence.c_str());
}

void Conditions::check_record() const {
  const std::string whole = facts_.install_dir + "/" + agent_files::kKernelVersionRecord;
  const std::string record = agent_files::kernel_version_record(facts_.install_dir);
  if (record == whole) return;
  findings_.error("install-dir-too-long", facts_.install_dir,
                  "the path of the kernel version record is cut: a run deletes and writes " +
                      record + " instead",
                  "install the agent under a shorter path");
}

bool Conditions::check_space(const std::string& url, std::optional<std::size_t> bytes) const {
  if (!bytes) {
    findings_.note(
        "size-unknown", url,
        "the server does not report the size of the file, so the free space cannot be checked", "");
    return true;
  }
  struct statvfs status = {};
  if (::statvfs(facts_.install_dir.c_str(), &status) != 0) return true;
  const unsigned long long free = std::uint64_t{status.f_bfree} * status.f_frsize;
  if (free / 2 >= *bytes) return true;
  findings_.error("no-space", facts_.install_dir,
                  "the file of " + shown(*bytes) + " at " + url +
                      " temporarily needs twice its size, but only " +
                      shown(static_cast<std::size_t>(free)) + " are free",
                  "make room");
  return *bytes <= free;
}

}  // namespace host
