#include "processes.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <string_view>

#include "agent_files.h"
#include "help.h"
#include "utility/cstr.h"
#include "utility/file.h"
#include "utility/unix_helper.h"

namespace host {

namespace {

constexpr char kUpdater[] = "norvak_update";

/// The kernel appends this to the path of an executable that was replaced or removed.
constexpr std::string_view kDeleted = " (deleted)";

constexpr std::size_t kMaxCommandBytes = 4096;

std::string process_path(pid_t pid, const char* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

/// The beginning of a file of /proc; empty if it cannot be read.
std::string read_proc(pid_t pid, const char* name) {
  const utility::FilePtr file(std::fopen(process_path(pid, name).c_str(), "re"));
  if (!file) return "";
  std::string text(kMaxCommandBytes, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), file.get()));
  return text;
}

/// Where a link of /proc leads, such as "exe"; nothing if it cannot be read, with errno set.
std::optional<std::string> read_link(pid_t pid, const char* name) {
  std::string path(kMaxCommandBytes, '\0');
  const ssize_t length = ::readlink(process_path(pid, name).c_str(), path.data(), path.size());
  if (length < 0) return std::nullopt;
  path.resize(static_cast<std::size_t>(length));
  if (path.size() > kDeleted.size() &&
      path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
    path.resize(path.size() - kDeleted.size());
  }
  return path;
}

/// The update type that the process was started with; nothing for an unknown one.
std::optional<UpdateType> type_of(pid_t pid) {
  const std::string command = read_proc(pid, "cmdline");  // arguments, each followed by a NUL
  const std::size_t first = command.find('\0');
  if (first == std::string::npos || first + 1 >= command.size()) return std::nullopt;
  const int number = utility::CStr::to_int(command.c_str() + first + 1);
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
  const std::optional<std::string> path = read_link(pid, "exe");
  const bool hidden = !path && (errno == EACCES || errno == EPERM);
  if (!path && !hidden) return std::nullopt;  // ended, or a kernel thread
  const bool named = path ? path->substr(path->rfind('/') + 1) == kUpdater
                          : read_proc(pid, "comm") == std::string(kUpdater) + "\n";
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
  const utility::DirPtr processes(::opendir("/proc"));
  if (!processes || ::stat(install_dir.c_str(), &own) != 0) return updaters;
  while (const dirent* const entry = ::readdir(processes.get())) {
    const pid_t pid = utility::CStr::to_int(entry->d_name);  // 0 for other entries
    if (pid <= 0) continue;
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
  const std::optional<std::string> executable = read_link(pid, "exe");
  const std::optional<std::string> directory = read_link(pid, "cwd");
  if (!executable || !directory) return std::nullopt;
  std::vector<std::string> paths = {*executable, *directory};
  std::istringstream arguments(read_proc(pid, "cmdline"));
  for (std::string argument; std::getline(arguments, argument, '\0');) paths.push_back(argument);
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
