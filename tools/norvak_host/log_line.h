// Lines of the update log, recognised by the updater's message formats.
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
  std::optional<UpdateType> type;  ///< of the run that wrote it; nothing if runs of any type may
  int module = -1;                 ///< index in agent_files::kModules of the module it names; or -1

  /// The time stamp read as UTC, in seconds since the epoch: for the time between two lines.
  [[nodiscard]] std::int64_t clock() const;

  /// The time stamp read as local time, in seconds since the epoch. If it is ambiguous because
  /// summer time ended, the later moment that is not after `written`.
  [[nodiscard]] std::time_t epoch() const;
};

/// The type whose tag, such as "[SOFT]", follows the time stamp; nothing if there is no tag. Does
/// not check the rest of the line, and is much faster than recognise().
[[nodiscard]] std::optional<UpdateType> tagged_type(std::string_view text);

/// @param written  see LogLine::written
/// @return nothing if the updater does not write such a line
[[nodiscard]] std::optional<LogLine> recognise(std::string_view text, std::time_t written);

}  // namespace host
