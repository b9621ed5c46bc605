// Stopping the agent by its pid file, without sending the signal.
// Input: bytes of the file
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "help.h"
#include "models.h"
#include "support.h"

namespace {

constexpr char kPidFile[] = "/var/log/agent/norvak.pid";
constexpr std::size_t kPidLimit = 32;

/// The arguments of the last kill(), and its result.
struct Kill {
  int answer;
  int calls;
  pid_t pid;
  int signal;
};
Kill last_kill = {};

void check_stop(int kill_answer, int pid) {
  last_kill = {kill_answer, 0, 0, 0};
  fuzz::check_equal(CHelper::stop_norvak_agent(), kill_answer, "the result is that of kill");
  fuzz::check_equal(last_kill.calls, 1, "one signal is sent");
  fuzz::check_equal(last_kill.pid, pid, "the process is that of the pid file");
  fuzz::check_equal(last_kill.signal, SIGKILL, "the signal is SIGKILL");
  fuzz::check_equal(::access(kPidFile, F_OK), kill_answer == 0 ? -1 : 0,
                    "the pid file goes with the process");
}

}  // namespace

// Replaces the C library's function in this program: no signal is ever sent.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): reserved names there
extern "C" int kill(pid_t pid, int signal) noexcept {
  last_kill = {last_kill.answer, last_kill.calls + 1, pid, signal};
  if (last_kill.answer != 0) errno = ESRCH;
  return last_kill.answer;
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::enter_private_directory();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes = fuzz::Fields(data, size).rest();
  fuzz::write_file(kPidFile, bytes);
  const int pid = fuzz::leading_int(fuzz::first_line(bytes, kPidLimit));
  check_stop(-1, pid);
  check_stop(0, pid);
  return 0;
}
