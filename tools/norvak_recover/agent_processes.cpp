#include "agent_processes.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>

#include "agent_files.h"
#include "common/proc.h"
#include "utility/cstr.h"
#include "utility/file.h"

namespace recover {

using tools::process_path;
using tools::read_proc_link;

namespace {

/// Programs that run scripts, without the version that may follow the name. A script is looked for
/// in the arguments of these only: the argument of an editor or of `tail` is not run.
constexpr std::string_view kShells[] = {"sh", "ash", "bash", "dash", "ksh", "mksh", "zsh"};
constexpr std::string_view kInterpreters[] = {"lua", "node", "perl", "php", "python", "ruby"};
constexpr std::string_view kBusybox = "busybox";

/// The programs of this package, wherever they are installed.
constexpr std::string_view kOwnPrograms[] = {"norvak_update", "norvak_host", "norvak_recover"};

/// Other programs that the agent ships.
constexpr const char* kOtherDirs[] = {"/nginx", "/tool"};

template <typename Range, typename Value>
bool contains(const Range& range, const Value& value) {
  return std::find(std::begin(range), std::end(range), value) != std::end(range);
}

std::string_view base_name(std::string_view path) { return path.substr(path.rfind('/') + 1); }

/// "python3.11" without its version, "-sh" without the mark of a login shell.
std::string_view interpreter_name(std::string_view path) {
  std::string_view name = base_name(path);
  if (!name.empty() && name.front() == '-') name.remove_prefix(1);
  while (!name.empty() && (name.back() == '.' || (name.back() >= '0' && name.back() <= '9'))) {
    name.remove_suffix(1);
  }
  return name;
}

/// Whether an option of an interpreter says that what follows is a command, not a script.
bool is_command_option(std::string_view option, bool is_shell) {
  if (option.size() > 1 && option[1] == '-') return false;
  return option.find_first_of(is_shell ? "c" : "cem") != std::string_view::npos;
}

/// The script that a process runs, as its arguments name it; empty if it runs none.
std::string script_of(const std::string& executable, const std::vector<std::string>& arguments) {
  if (arguments.empty()) return "";
  std::string_view name = interpreter_name(executable);
  if (name == kBusybox) name = interpreter_name(arguments[0]);  // the applet
  const bool is_shell = contains(kShells, name);
  if (!is_shell && !contains(kInterpreters, name)) return "";
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    if (arguments[i].empty() || arguments[i][0] != '-') return arguments[i];
    if (is_command_option(arguments[i], is_shell)) break;
  }
  return "";
}

/// Resolves "." and ".." in an absolute path by its text alone: the file may be gone.
std::string normalized(const std::string& path) {
  string_list parts;
  utility::CStr::ext_line("/", parts, path);
  string_list kept;
  for (const std::string& part : parts) {
    if (part == ".." && !kept.empty()) kept.pop_back();
    if (part != ".." && part != ".") kept.push_back(part);
  }
  std::string result;
  for (const std::string& part : kept) result += "/" + part;
  return result;
}

bool is_below(std::string_view path, std::string_view directory) {
  return path.size() > directory.size() && path.substr(0, directory.size()) == directory &&
         path[directory.size()] == '/';
}

/// The install directory under its two paths: the configured one, and the one without symbolic
/// links, which the kernel reports.
class InstallDir {
 public:
  explicit InstallDir(const std::string& path) : given_(normalized(path)), real_(given_) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr),
                                                           &std::free);
    if (real) real_ = real.get();
    known_ = ::stat(real_.c_str(), &status_) == 0;
  }

  /// The part of an absolute path below the directory, with its leading slash; nothing for a path
  /// elsewhere. The directory itself gives "".
  [[nodiscard]] std::optional<std::string> relative(const std::string& path) const {
    for (const std::string& directory : {real_, given_}) {
      if (path == directory) return "";
      if (is_below(path, directory)) return path.substr(directory.size());
    }
    return std::nullopt;
  }

  /// Whether the process sees this very directory under its path. In a container that has an agent
  /// of its own, it sees another one.
  [[nodiscard]] bool is_seen_by(pid_t pid) const {
    struct stat other = {};
    return known_ && ::stat((process_path(pid, "root") + real_).c_str(), &other) == 0 &&
           other.st_dev == status_.st_dev && other.st_ino == status_.st_ino;
  }

 private:
  std::string given_;
  std::string real_;
  struct stat status_ = {};
  bool known_ = false;
};

bool is_in_work_dir(const std::optional<std::string>& relative) {
  using agent_files::kWorkDirs;
  return relative && std::any_of(std::begin(kWorkDirs), std::end(kWorkDirs), [&](const char* dir) {
           return *relative == dir || is_below(*relative, dir);
         });
}

bool is_agent_file(const std::string& relative) {
  const bool elsewhere = std::any_of(std::begin(kOtherDirs), std::end(kOtherDirs),
                                     [&](const char* dir) { return is_below(relative, dir); });
  return !relative.empty() && !elsewhere && !is_in_work_dir(relative) &&
         relative != agent_files::kStartupScript && !contains(kOwnPrograms, base_name(relative));
}

/// A process and the paths that identify it.
struct Process {
  pid_t pid;
  std::string executable;
  std::string directory;  ///< the working directory, with the kernel's mark if it was removed
  std::vector<std::string> arguments;

  explicit Process(pid_t id)
      : pid(id),
        executable(tools::without_deleted(read_proc_link(process_path(id, "exe")))),
        directory(read_proc_link(process_path(id, "cwd"))),
        arguments(tools::arguments_of(id)) {}

  /// An argument as a path that begins at the root.
  [[nodiscard]] std::string absolute(const std::string& argument) const {
    return normalized(!argument.empty() && argument[0] == '/' ? argument
                                                              : directory + "/" + argument);
  }

  /// The script that it runs, as an absolute path; empty if it runs none.
  [[nodiscard]] std::string script() const {
    const std::string name = script_of(executable, arguments);
    return name.empty() ? "" : absolute(name);
  }
};

bool has_open_file_in_work_dir(pid_t pid, const InstallDir& install_dir) {
  const std::string path = process_path(pid, "fd");
  const utility::DirPtr descriptors(::opendir(path.c_str()));
  if (!descriptors) return false;
  while (const dirent* const entry = ::readdir(descriptors.get())) {
    if (is_in_work_dir(install_dir.relative(read_proc_link(path + "/" + entry->d_name)))) {
      return true;
    }
  }
  return false;
}

void classify(const Process& process, const InstallDir& install_dir, InstallDirProcesses& found) {
  const std::string script = process.script();
  const std::optional<std::string> program = install_dir.relative(process.executable);
  const std::optional<std::string> run = install_dir.relative(script);
  if ((program && is_agent_file(*program)) || (run && is_agent_file(*run))) {
    found.agents.push_back(process.pid);
  }
  if (run && *run == agent_files::kStartupScript) found.startup_scripts.push_back(process.pid);
  if (is_in_work_dir(program) || is_in_work_dir(run) ||
      is_in_work_dir(install_dir.relative(process.directory)) ||
      has_open_file_in_work_dir(process.pid, install_dir)) {
    found.workers.push_back(process.pid);
  }
}

/// Whether one of @a ancestors started the process, directly or through others.
bool descends_from(pid_t pid, const std::vector<pid_t>& ancestors) {
  for (pid_t parent = pid; parent > 1; parent = tools::parent_of(parent)) {
    if (contains(ancestors, parent)) return true;
  }
  return false;
}

/// The agent may have been started in a work directory, and what it starts inherits that.
void leave_out_agents(InstallDirProcesses& found) {
  std::vector<pid_t>& workers = found.workers;
  workers.erase(std::remove_if(workers.begin(), workers.end(),
                               [&](pid_t pid) {
                                 return descends_from(pid, found.agents) ||
                                        descends_from(pid, found.startup_scripts);
                               }),
                workers.end());
}

}  // namespace

InstallDirProcesses find_processes(const std::string& install_dir) {
  InstallDirProcesses found;
  const InstallDir directory(install_dir);
  for (const pid_t pid : tools::all_processes()) {
    const Process process(pid);
    // A process without an executable has ended, or is a kernel thread.
    const bool has_ended = process.executable.empty() || tools::is_being_killed(pid);
    if (pid == ::getpid() || has_ended || !directory.is_seen_by(pid)) continue;
    classify(process, directory, found);
  }
  leave_out_agents(found);
  return found;
}

bool may_be_agent(pid_t pid, const std::string& install_dir) {
  const InstallDir directory(install_dir);
  const Process process(pid);
  if (process.executable.empty() || directory.relative(process.executable) ||
      directory.relative(process.directory)) {
    return true;
  }
  return std::any_of(process.arguments.begin(), process.arguments.end(),
                     [&](const std::string& argument) {
                       return directory.relative(process.absolute(argument)).has_value();
                     });
}

}  // namespace recover
