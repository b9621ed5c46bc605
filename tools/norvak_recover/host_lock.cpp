#include "host_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include "common/state_file.h"
#include "wait.h"

namespace recover {

utility::Descriptor take_host_lock() {
  constexpr int kSeconds = 1200;
  constexpr mode_t kMode = 0600;
  utility::Descriptor lock(
      ::open(tools::state_path("lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kMode));
  const bool locked =
      lock && wait_until(kSeconds, [&] { return ::flock(lock.get(), LOCK_EX | LOCK_NB) == 0; });
  if (!locked) (void)lock.close();
  return lock;
}

}  // namespace recover
