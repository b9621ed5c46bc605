// Small downloads for inspection, with the updater's transfer options and with limits.
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
  utility::FilePtr body;   ///< unnamed temporary file; null if no byte arrived

  /// A path under which the body can be opened; empty if no byte arrived, as the updater has no
  /// file then.
  [[nodiscard]] std::string path() const;
};

/// The longest body that is downloaded.
constexpr std::size_t kMaxProbeBytes = std::size_t{1024} * 1024;

/// Downloads @a url.
/// @param timeout  seconds
[[nodiscard]] Reply download(const std::string& url, long timeout);

/// What a server says about a file without sending it.
struct Head {
  long http_status = 0;              ///< 0 without an HTTP reply
  std::optional<std::size_t> bytes;  ///< nothing if the server does not report it
};

/// Makes a HEAD request for @a url.
/// @param timeout  seconds
[[nodiscard]] Head request_head(const std::string& url, long timeout);

}  // namespace host
