// A progress bar for work that people wait for.
#pragma once

#include <string>

#include "sha256.h"

namespace publish {

/// Shows a bar on stderr while it lives, if stderr is a terminal.
class ProgressBar {
 public:
  /// @param quiet  shows nothing
  ProgressBar(std::string label, bool quiet);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// Draws the bar; valid as long as this object. Empty if nothing is to be shown.
  [[nodiscard]] Progress callback() const;

 private:
  std::string label_;
  bool shown_;
};

/// The bar as text: "Label [#####     ]  50%".
[[nodiscard]] std::string progress_line(const std::string& label, std::size_t done,
                                        std::size_t total);

}  // namespace publish
