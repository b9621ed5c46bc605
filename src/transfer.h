// The libcurl transfer behind every download.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <memory>

namespace transfer {

struct CurlCleanup {
  void operator()(CURL* curl) const noexcept { curl_easy_cleanup(curl); }
};
using CurlPtr = std::unique_ptr<CURL, CurlCleanup>;

/// Receives @a count items of @a size bytes; a result below @a count aborts the transfer.
using WriteCallback = std::size_t (*)(void* data, std::size_t size, std::size_t count, void* user);

/// Prepares a transfer that behaves as the updater's: IPv4 only, no time limit, redirects not
/// followed, HTTP errors not treated as such. `curl_easy_perform` runs it. Programs other than the
/// updater may add limits to the handle first.
///
/// @param url  zero-terminated; libcurl copies it
/// @param user  passed to @a write; must outlive the transfer
/// @return null if libcurl cannot be initialised
[[nodiscard]] CurlPtr prepare(const char* url, WriteCallback write, const void* user);

}  // namespace transfer
