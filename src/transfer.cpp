#include "transfer.h"

namespace transfer {

CurlPtr prepare(const char* url, WriteCallback write, const void* user) {
  CurlPtr curl(curl_easy_init());
  if (!curl) return curl;
  // If an option cannot be set because memory ran out, the transfer fails.
  (void)curl_easy_setopt(curl.get(), CURLOPT_URL, url);
  (void)curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, write);
  (void)curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, user);
  (void)curl_easy_setopt(curl.get(), CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
  return curl;
}

}  // namespace transfer
