#include "parallel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace publish {

namespace {

constexpr std::chrono::milliseconds kProgressInterval(50);

}  // namespace

void in_parallel(std::size_t count, const std::function<void(std::size_t)>& work,
                 const Progress& progress) {
  std::atomic<std::size_t> next = 0;
  const auto take_turns = [&] {
    try {
      for (std::size_t i = next++; i < count; i = next++) work(i);
    } catch (...) {
      next = count;  // ends the other workers early
      throw;
    }
  };
  const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
  std::vector<std::future<void>> workers;
  for (std::size_t i = 0; i < std::min(processors, count); ++i) {
    workers.push_back(std::async(std::launch::async, take_turns));
  }
  for (std::future<void>& worker : workers) {
    while (worker.wait_for(kProgressInterval) != std::future_status::ready) {
      if (progress) progress(std::min(next.load(), count), count);
    }
  }
  for (std::future<void>& worker : workers) worker.get();  // rethrows
}

}  // namespace publish
