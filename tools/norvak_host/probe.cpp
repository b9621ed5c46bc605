// CURLINFO_CONTENT_LENGTH_DOWNLOAD is deprecated, but its successor is missing on older hosts.
#define CURL_DISABLE_DEPRECATION

#include "probe.h"

#include <curl/curl.h>

#include <cstdio>

#include "transfer.h"

namespace host {

namespace {

/// @return @a count, or 0 to abort the transfer
std::size_t write_body(void* data, std::size_t size, std::size_t count, void* user) {
  Reply& reply = *static_cast<Reply*>(user);
  const std::size_t bytes = size * count;
  if (bytes == 0) return 0;
  reply.too_large = reply.bytes + bytes > kMaxProbeBytes;
  if (reply.too_large) return 0;
  if (!reply.body) reply.body.reset(std::tmpfile());
  if (!reply.body || utility::write_all(::fileno(reply.body.get()), data, bytes) != bytes) return 0;
  reply.bytes += bytes;
  return count;
}

std::size_t discard(void* /*data*/, std::size_t /*size*/, std::size_t count, void* /*user*/) {
  return count;
}

void set_limits(CURL* curl, long timeout) {
  (void)curl_easy_setopt(curl, CURLOPT_TIMEOUT, timeout);
  (void)curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
}

}  // namespace

std::string Reply::path() const {
  return body ? "/proc/self/fd/" + std::to_string(::fileno(body.get())) : "";
}

Reply download(const std::string& url, long timeout) {
  Reply reply;
  reply.url = url;
  const transfer::CurlPtr curl = transfer::prepare(url.c_str(), write_body, &reply);
  if (!curl) {
    reply.result = CURLE_FAILED_INIT;
    return reply;
  }
  set_limits(curl.get(), timeout);
  reply.result = curl_easy_perform(curl.get());
  reply.timed_out = reply.result == CURLE_OPERATION_TIMEDOUT;
  (void)curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.http_status);
  return reply;
}

Head request_head(const std::string& url, long timeout) {
  Head head;
  const transfer::CurlPtr curl = transfer::prepare(url.c_str(), discard, nullptr);
  if (!curl) return head;
  set_limits(curl.get(), timeout);
  (void)curl_easy_setopt(curl.get(), CURLOPT_NOBODY, 1L);
  if (curl_easy_perform(curl.get()) != CURLE_OK) return head;
  (void)curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &head.http_status);
  double length = -1;
  (void)curl_easy_getinfo(curl.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD, &length);
  if (length >= 0) head.bytes = static_cast<std::size_t>(length);
  return head;
}

}  // namespace host
