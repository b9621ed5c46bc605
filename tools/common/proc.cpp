#include "common/proc.h"

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "utility/cstr.h"
#include "utility/file.h"

namespace tools {

namespace {

/// The kernel appends this to the path of a file that was replaced or removed.
constexpr std::string_view kDeleted = " (deleted)";

/// The value of a line of /proc/PID/status; empty if there is no such line or process.
std::string status_value(pid_t pid, std::string_view name) {
  constexpr int kMaxLineBytes = 1024;
  utility::LineReader lines(process_path(pid, "status"), kMaxLineBytes);
  std::string line;
  while (lines && lines.next(line)) {
    if (line.compare(0, name.size(), name) == 0) return line.substr(name.size());
  }
  return "";
}

}  // namespace

std::string process_path(pid_t pid, const std::string& name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

std::vector<pid_t> all_processes() {
  std::vector<pid_t> pids;
  const utility::DirPtr directory(::opendir("/proc"));
  if (!directory) return pids;
  while (const dirent* const entry = ::readdir(directory.get())) {
    const pid_t pid = utility::CStr::to_int(entry->d_name);  // 0 for other entries
    if (pid > 0) pids.push_back(pid);
  }
  return pids;
}

pid_t parent_of(pid_t pid) { return utility::CStr::to_int(status_value(pid, "PPid:").c_str()); }

bool is_being_killed(pid_t pid) {
  constexpr int kHexadecimal = 16;
  constexpr unsigned long long kKillBit = 1ULL << (SIGKILL - 1);
  for (const char* const pending : {"SigPnd:", "ShdPnd:"}) {
    const std::string signals = status_value(pid, pending);
    if ((std::strtoull(signals.c_str(), nullptr, kHexadecimal) & kKillBit) != 0) return true;
  }
  return false;
}

std::vector<std::string> arguments_of(pid_t pid) {
  std::vector<std::string> arguments;
  const utility::FilePtr file(std::fopen(process_path(pid, "cmdline").c_str(), "re"));
  if (!file) return arguments;
  std::string argument;
  for (int c = std::fgetc(file.get()); c != EOF; c = std::fgetc(file.get())) {
    if (c != '\0') {
      argument += static_cast<char>(c);
    } else {
      arguments.push_back(argument);
      argument.clear();
    }
  }
  if (!argument.empty()) arguments.push_back(argument);  // a process can overwrite the last NUL
  return arguments;
}

std::string read_proc_link(const std::string& link) {
  std::string path(PATH_MAX, '\0');
  const ssize_t length = ::readlink(link.c_str(), path.data(), path.size());
  path.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return path;
}

std::string without_deleted(std::string path) {
  const std::size_t end = path.size() < kDeleted.size() ? 0 : path.size() - kDeleted.size();
  if (path.compare(end, std::string::npos, kDeleted) == 0) path.resize(end);
  return path;
}

}  // namespace tools
