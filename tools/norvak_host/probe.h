// Small downloads for looking at, made as the updater makes them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "utility/file.h"

namespace host {

/// What a server answered.
struct Reply {
  std::string url;
  int result = 0;          ///< libcurl's result code; 0: the transfer succeeded
  long http_status = 0;    ///< 0 without an HTTP reply
  std::size_t bytes = 0;   ///< of the body
  bool timed_out = false;  ///< the updater, which has no time limit, would still wait
  bool too_large = false;  ///< the body is longer than the limit
  utility::FilePtr body;   ///< unnamed temporary file; null without a byte, like the updater's

  /// Under this path the body can be opened; an empty body leaves no file, so the path leads
  /// nowhere.
  [[nodiscard]] std::string path() const;
};

/// Downloads at most this much of a file.
constexpr std::size_t kMaxProbeBytes = std::size_t{1024} * 1024;

/// Downloads @a url.
/// @param timeout  seconds
[[nodiscard]] Reply download(const std::string& url, long timeout);

/// What a server says about a file without sending it.
struct Head {
  long http_status = 0;              ///< 0 without an HTTP reply
  std::optional<std::size_t> bytes;  ///< nothing if the server does not tell
};

/// Requests only the head of @a url.
[[nodiscard]] Head ask_for_head(const std::string& url, long timeout);

}  // namespace host
