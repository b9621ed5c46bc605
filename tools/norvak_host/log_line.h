// One line of the update log, recognised by the formats that the updater writes it with.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

#include "update_type.h"

namespace host {

struct LogLine {
  std::string_view text;           ///< the whole line; borrowed
  std::time_t written = 0;         ///< when the file was last written: the line is not newer
  const char* format = nullptr;    ///< a constant of log_messages
  std::optional<UpdateType> type;  ///< of the run that wrote it; nothing where the text cannot tell
  int module = -1;                 ///< place of the kernel module it names in the updater's order

  /// The time stamp as seconds since 1970 of a clock that shows the same and is never put forward
  /// or back: for differences.
  [[nodiscard]] std::int64_t clock() const;

  /// The moment in seconds since the epoch. Where the clock showed the time twice because summer
  /// time ended, the later one that is not after `written`.
  [[nodiscard]] std::time_t epoch() const;
};

/// The type whose tag, such as "[SOFT]", follows the place of the time stamp; nothing without a
/// tag. Much faster than recognise().
[[nodiscard]] std::optional<UpdateType> tagged_type(std::string_view text);

/// @return nothing when the updater does not write such a line
[[nodiscard]] std::optional<LogLine> recognise(std::string_view text, std::time_t written);

}  // namespace host
