#include "processes.h"

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent_files.h"
#include "common/proc.h"
#include "help.h"
#include "utility/cstr.h"
#include "utility/file.h"
#include "utility/unix_helper.h"

namespace host {

using tools::process_path;

namespace {

constexpr char kUpdater[] = "norvak_update";

/// The beginning of a file in /proc; empty if it cannot be read.
std::string read_proc(pid_t pid, const char* name) {
  constexpr std::size_t kMaxBytes = 1024;
  const utility::FilePtr file(std::fopen(process_path(pid, name).c_str(), "re"));
  if (!file) return "";
  std::string text(kMaxBytes, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), file.get()));
  return text;
}

/// The target of a link in /proc, such as "exe", also if it was removed; empty, with errno set, if
/// it cannot be read.
std::string read_link(pid_t pid, const char* name) {
  return tools::without_deleted(tools::read_proc_link(process_path(pid, name)));
}

/// The update type that the process was started with; nothing for an unknown one.
std::optional<UpdateType> type_of(pid_t pid) {
  const std::vector<std::string> arguments = tools::arguments_of(pid);
  if (arguments.size() < 2) return std::nullopt;
  const int number = utility::CStr::to_int(arguments[1].c_str());
  for (const UpdateType type : kUpdateTypes) {
    if (number == static_cast<int>(type)) return type;
  }
  return std::nullopt;
}

/// Whether the process sees the directory @a own as its install directory.
bool same_install_dir(pid_t pid, const struct stat& own) {
  using utility::CUnixHelper;
  const std::string root = process_path(pid, "root");
  const std::string path = CUnixHelper::read_install_path(root + CUnixHelper::kInstallPathFile)
                               .value_or(CUnixHelper::kDefaultInstallPath);
  struct stat other = {};
  return ::stat((root + "/" + path).c_str(), &other) == 0 && other.st_dev == own.st_dev &&
         other.st_ino == own.st_ino;
}

/// The process as an updater; nothing if it is none.
std::optional<RunningUpdater> as_updater(pid_t pid, const struct stat& install_dir) {
  const std::string path = read_link(pid, "exe");
  const bool hidden = path.empty() && (errno == EACCES || errno == EPERM);
  if (path.empty() && !hidden) return std::nullopt;  // ended, or a kernel thread
  const bool named = hidden ? read_proc(pid, "comm") == std::string(kUpdater) + "\n"
                            : path.substr(path.rfind('/') + 1) == kUpdater;
  if (!named) return std::nullopt;
  const std::optional<UpdateType> type = type_of(pid);
  if (!type || !is_alive(pid) || (!hidden && !same_install_dir(pid, install_dir))) {
    return std::nullopt;
  }
  return RunningUpdater{pid, *type, !hidden};
}

}  // namespace

std::vector<RunningUpdater> find_updaters(const std::string& install_dir) {
  std::vector<RunningUpdater> updaters;
  struct stat own = {};
  if (::stat(install_dir.c_str(), &own) != 0) return updaters;
  for (const pid_t pid : tools::all_processes()) {
    const std::optional<RunningUpdater> updater = as_updater(pid, own);
    if (updater) updaters.push_back(*updater);
  }
  return updaters;
}

bool is_running(const std::vector<RunningUpdater>& updaters, UpdateType type) {
  return std::any_of(updaters.begin(), updaters.end(), [type](const RunningUpdater& updater) {
    return updater.type == type && updater.certain;
  });
}

std::optional<std::vector<std::string>> process_paths(pid_t pid) {
  const std::string executable = read_link(pid, "exe");
  const std::string directory = read_link(pid, "cwd");
  if (executable.empty() || directory.empty()) return std::nullopt;
  std::vector<std::string> paths = tools::arguments_of(pid);
  paths.push_back(executable);
  paths.push_back(directory);
  return paths;
}

bool is_alive(pid_t pid) {
  if (pid <= 0 || (::kill(pid, 0) != 0 && errno != EPERM)) return false;
  // "pid (name) state ...", where the name may hold anything.
  const std::string status = read_proc(pid, "stat");
  const std::size_t state = status.rfind(") ");
  return state == std::string::npos || std::strchr("ZX", status[state + 2]) == nullptr;
}

AgentState agent_state(const std::string& install_dir) {
  errno = 0;
  const std::optional<pid_t> pid = CHelper::read_pid(install_dir + agent_files::kPid);
  if (!pid) return errno == EACCES ? AgentState::kUnknown : AgentState::kDown;
  return is_alive(*pid) ? AgentState::kRunning : AgentState::kDown;
}

}  // namespace host
