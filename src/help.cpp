#include "help.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string_view>
#include <vector>

#include "agent_files.h"
#include "utility/cstr.h"
#include "utility/file.h"
#include "utility/unix_helper.h"

namespace {

/// Tested as a bit, not compared: entry types that contain it, such as sockets, are treated as
/// directories. They cannot be opened as one, which stops the removal.
constexpr unsigned kDirectoryBit = DT_DIR;

struct Entry {
  std::string path;
  bool is_directory;
};

/// Lists the directory and closes it, so that the limit of open files does not limit the depth of
/// a tree.
std::optional<std::vector<Entry>> list_directory(const std::string& path) {
  const utility::DirPtr dir(::opendir(path.c_str()));
  if (!dir) return std::nullopt;
  std::vector<Entry> entries;
  while (const dirent* const entry = ::readdir(dir.get())) {
    const std::string_view name(entry->d_name);
    if (name == "." || name == "..") continue;
    entries.push_back({path + "/" + entry->d_name, (entry->d_type & kDirectoryBit) != 0});
  }
  return entries;
}

}  // namespace

int CHelper::stop_norvak_agent() {
  const std::string pid_path = utility::CUnixHelper::get_norvak_path() + agent_files::kPid;
  const std::optional<pid_t> pid = read_pid(pid_path);
  if (!pid || ::kill(*pid, SIGKILL) != 0) return -1;
  return ::unlink(pid_path.c_str());
}

std::optional<pid_t> CHelper::read_pid(const std::string& pid_path) {
  const std::optional<std::string> line = utility::read_first_line(pid_path, kPidLimit);
  if (!line) return std::nullopt;
  return utility::CStr::to_int(line->c_str());
}

int CHelper::start_norvak_agent() {
  const std::string script = utility::CUnixHelper::get_norvak_path() + agent_files::kStartupScript;
  [[maybe_unused]] const int ignored = std::system(script.c_str());
  return 0;
}

int CHelper::rename_file(const std::string& source, const std::string& target) {
  switch (utility::copy_file(source.c_str(), target.c_str())) {
    case utility::CopyResult::kCopied:
      (void)::unlink(source.c_str());
      return 0;
    case utility::CopyResult::kReadFailed:
      (void)::unlink(target.c_str());  // a partial copy must not pass for the file
      return -1;
    case utility::CopyResult::kFailed:
      break;
  }
  return -1;
}

int CHelper::remove_file(const std::string& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) return -1;
  return S_ISDIR(status.st_mode) ? _remove_dir(path) : ::unlink(path.c_str());
}

int CHelper::_remove_dir(const std::string& path) {
  const std::optional<std::vector<Entry>> entries = list_directory(path);
  if (!entries) return -1;
  for (const Entry& entry : *entries) {
    const int result = entry.is_directory ? _remove_dir(entry.path) : ::unlink(entry.path.c_str());
    if (result != 0) return -1;
  }
  return ::rmdir(path.c_str());
}
