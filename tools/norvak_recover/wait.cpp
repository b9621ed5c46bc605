#include "wait.h"

#include <unistd.h>

namespace recover {

bool wait_until(int seconds, const std::function<bool()>& condition) {
  constexpr int kTimesPerSecond = 10;
  constexpr useconds_t kPauseMicroseconds = 1'000'000 / kTimesPerSecond;
  for (int pauses = 0; !condition(); ++pauses) {
    if (pauses >= seconds * kTimesPerSecond) return false;
    (void)::usleep(kPauseMicroseconds);
  }
  return true;
}

}  // namespace recover
