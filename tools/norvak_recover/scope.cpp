#include "scope.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <string>
#include <string_view>

#include "common/proc.h"
#include "utility/file.h"
#include "wait.h"

namespace recover {

namespace {

constexpr char kSystemdDir[] = "/run/systemd/system";
constexpr std::string_view kUnitPrefix = "norvak-update@";
constexpr int kMaxLineBytes = 8192;
constexpr int kMoveSeconds = 10;
constexpr int kMaxMoves = 5;
constexpr useconds_t kRecheckMicroseconds = 200'000;
constexpr int kCannotRun = 127;  // exit status, as of a shell

/// The control group that systemd has put the process in; empty if the process has ended.
std::string control_group(pid_t pid) {
  constexpr std::string_view kNamed = ":name=systemd:";  // beside other hierarchies
  constexpr std::string_view kUnified = "0::";
  utility::LineReader lines(tools::process_path(pid, "cgroup"), kMaxLineBytes);
  std::string line;
  std::string unified;
  while (lines && lines.next(line)) {
    const std::size_t named = line.find(kNamed);
    if (named != std::string::npos) return line.substr(named + kNamed.size());
    if (line.compare(0, kUnified.size(), kUnified) == 0) unified = line.substr(kUnified.size());
  }
  return unified;
}

bool is_in_group_named(pid_t pid, const std::string& name) {
  const std::string group = control_group(pid);
  return group.empty() || group.substr(group.rfind('/') + 1) == name;
}

std::vector<pid_t> ancestors_of(pid_t pid) {
  std::vector<pid_t> ancestors;
  for (pid_t parent = tools::parent_of(pid); parent > 0; parent = tools::parent_of(parent)) {
    ancestors.push_back(parent);
  }
  return ancestors;
}

/// The processes in the control group of this process, without itself and its ancestors.
std::vector<pid_t> find_companions() {
  const std::string own = control_group(::getpid());
  const std::vector<pid_t> ancestors = ancestors_of(::getpid());
  std::vector<pid_t> companions;
  for (const pid_t pid : tools::all_processes()) {
    const bool in_family =
        pid == ::getpid() || std::find(ancestors.begin(), ancestors.end(), pid) != ancestors.end();
    if (!in_family && control_group(pid) == own) companions.push_back(pid);
  }
  return companions;
}

/// The companions that still exist 0.2 seconds later, which leaves out programs that end at once.
std::vector<pid_t> find_lasting_companions() {
  const std::vector<pid_t> before = find_companions();
  (void)::usleep(kRecheckMicroseconds);
  const std::vector<pid_t> after = find_companions();
  std::vector<pid_t> lasting;
  std::copy_if(before.begin(), before.end(), std::back_inserter(lasting), [&](pid_t pid) {
    return std::find(after.begin(), after.end(), pid) != after.end();
  });
  return lasting;
}

/// Runs a program of PATH without output and waits for it. Errors that it prints remain visible.
bool run(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));  // execvp() changes nothing
  }
  arguments.push_back(nullptr);
  const pid_t child = ::fork();  // posix_spawnp() would need glibc 2.15
  if (child < 0) return false;
  if (child == 0) {
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0 && ::dup2(null, STDOUT_FILENO) >= 0) {
      (void)::execvp(arguments[0], arguments.data());
    }
    ::_exit(kCannotRun);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return status == 0;
}

}  // namespace

bool systemd_runs() { return utility::exists(kSystemdDir); }

bool is_in_own_unit() {
  const std::string group = control_group(::getpid());
  return group.compare(group.rfind('/') + 1, kUnitPrefix.size(), kUnitPrefix) == 0;
}

bool move_to_scope(const std::vector<pid_t>& pids) {
  if (pids.empty()) return true;
  // The time, because an older scope of a process with the same id may still exist.
  const std::string name = "norvak-agent-" + std::to_string(std::time(nullptr)) + "-" +
                           std::to_string(pids.front()) + ".scope";
  std::vector<std::string> command = {"busctl",
                                      "call",
                                      "org.freedesktop.systemd1",
                                      "/org/freedesktop/systemd1",
                                      "org.freedesktop.systemd1.Manager",
                                      "StartTransientUnit",
                                      "ssa(sv)a(sa(sv))",
                                      name,
                                      "fail",
                                      "2",
                                      "Description",
                                      "s",
                                      "Norvak agent, started by an update",
                                      "PIDs",
                                      "au",
                                      std::to_string(pids.size())};
  for (const pid_t pid : pids) command.push_back(std::to_string(pid));
  command.emplace_back("0");
  // The call only queues the move. If the unit ended before, systemd would kill the processes.
  return run(command) && wait_until(kMoveSeconds, [&] {
           return std::all_of(pids.begin(), pids.end(),
                              [&](pid_t pid) { return is_in_group_named(pid, name); });
         });
}

bool move_companions_to_scope() {
  std::vector<pid_t> companions = find_companions();
  for (int moves = 0; moves < kMaxMoves; ++moves) {
    // It fails if one of them has ended, and misses what they have started meanwhile.
    (void)move_to_scope(companions);
    if (find_companions().empty()) return true;
    companions = find_lasting_companions();
  }
  return false;
}

}  // namespace recover
