#include "parallel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

TEST(Parallel, TakesEachNumberOnce) {
  std::vector<std::atomic<int>> times(1000);
  publish::in_parallel(times.size(), [&](std::size_t i) { ++times[i]; }, {});
  for (const auto& count : times) EXPECT_EQ(count, 1);
}

TEST(Parallel, HasNothingToDoForNothing) {
  publish::in_parallel(0, [](std::size_t) { FAIL(); }, {});
}

TEST(Parallel, WorksOnSeveralProcessorsAtOnce) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "one processor";
  std::mutex mutex;
  std::condition_variable changed;
  int arrived = 0;
  // Each call waits for the other: both return only if they run at the same time.
  publish::in_parallel(
      2,
      [&](std::size_t) {
        std::unique_lock<std::mutex> lock(mutex);
        ++arrived;
        changed.notify_all();
        EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return arrived == 2; }));
      },
      {});
}

TEST(Parallel, PassesOnWhatTheWorkThrowsAndEndsEarly) {
  std::atomic<int> done = 0;
  const auto work = [&](std::size_t i) {
    if (i == 0) throw std::runtime_error("no");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ++done;
  };
  EXPECT_THROW(publish::in_parallel(100000, work, {}), std::runtime_error);
  EXPECT_LT(done, 99999);
}

TEST(Parallel, ReportsProgressFromTheCallingThread) {
  const std::thread::id caller = std::this_thread::get_id();
  std::promise<void> reported;
  int calls = 0;
  const auto progress = [&](std::size_t done, std::size_t total) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_LE(done, total);
    EXPECT_EQ(total, 1U);
    if (++calls == 1) reported.set_value();
  };
  const auto work = [&](std::size_t) {
    EXPECT_EQ(reported.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  };
  publish::in_parallel(1, work, progress);
}

}  // namespace
