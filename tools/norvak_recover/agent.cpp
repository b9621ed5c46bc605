#include "agent.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "agent_processes.h"
#include "help.h"
#include "scope.h"
#include "utility/file.h"

namespace recover {

namespace {

constexpr useconds_t kRecheckMicroseconds = 200'000;
constexpr char kLibraryPath[] = "LD_LIBRARY_PATH";

/// Closes what the agent must not inherit: the standard streams, and the lock, which it would hold
/// as long as it runs.
void detach_descriptors() {
  constexpr int kMoreThanAreOpen = 64;
  for (int fd = 0; fd < kMoreThanAreOpen; ++fd) (void)::close(fd);
  // The lowest free ones: 0, 1 and 2.
  for (int stream = 0; stream < 3; ++stream) (void)::open("/dev/null", O_RDWR);
}

[[noreturn]] void run_startup_script(const std::string& install_dir, int gate) {
  char byte = 0;
  (void)utility::read_some(gate, &byte, sizeof byte);  // until the other end is closed
  (void)::setsid();
  detach_descriptors();
  (void)::setenv(kLibraryPath, install_dir.c_str(), 1);
  (void)CHelper::start_norvak_agent();
  ::_exit(0);
}

}  // namespace

bool agent_is_up(const std::string& install_dir) {
  const std::vector<pid_t> before = find_processes(install_dir).agents;
  if (before.empty()) return false;
  (void)::usleep(kRecheckMicroseconds);
  const std::vector<pid_t> after = find_processes(install_dir).agents;
  return std::find_first_of(before.begin(), before.end(), after.begin(), after.end()) !=
         before.end();
}

void start_agent(const std::string& install_dir) {
  int ends[2] = {-1, -1};
  if (::pipe(ends) != 0) return;
  const utility::Descriptor gate(ends[0]);
  utility::Descriptor opener(ends[1]);
  const pid_t child = ::fork();
  if (child < 0) return;
  if (child == 0) {
    (void)opener.close();
    run_startup_script(install_dir, gate.get());
  }
  // The child waits until it is in the scope, so that every process it starts is there, too.
  if (systemd_runs() && !move_to_scope({child})) {
    std::fputs("norvak_recover: the agent gets no scope of its own; is D-Bus running?\n", stderr);
  }
  (void)opener.close();
}

}  // namespace recover
