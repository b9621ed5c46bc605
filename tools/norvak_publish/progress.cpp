#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace publish {

namespace {

constexpr std::size_t kCells = 30;
constexpr std::size_t kPercent = 100;
constexpr char kEraseLine[] = "\r\x1b[K";

}  // namespace

ProgressBar::ProgressBar(std::string label, bool quiet)
    : label_(std::move(label)), shown_(!quiet && ::isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
  if (shown_) (void)std::fputs(kEraseLine, stderr);
}

Progress ProgressBar::callback() const {
  if (!shown_) return {};
  return [this](std::size_t done, std::size_t total) {
    (void)std::fprintf(stderr, "\r%s", progress_line(label_, done, total).c_str());
  };
}

std::string progress_line(const std::string& label, std::size_t done, std::size_t total) {
  const std::size_t percent = total == 0 ? kPercent : std::min(kPercent, done * kPercent / total);
  const std::size_t filled = percent * kCells / kPercent;
  const std::string number = std::to_string(percent);
  return label + " [" + std::string(filled, '#') + std::string(kCells - filled, ' ') + "] " +
         std::string(3 - number.size(), ' ') + number + "%";
}

}  // namespace publish
