#include "url_op.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>

#include "log.h"
#include "log_messages.h"
#include "utility/file.h"

namespace {

constexpr mode_t kFileMode = 0666;  // less the umask

struct CurlCleanup {
  void operator()(CURL* curl) const noexcept { curl_easy_cleanup(curl); }
};
using CurlPtr = std::unique_ptr<CURL, CurlCleanup>;

}  // namespace

int CUrlOp::url_down_file(const char* url, const char* path) {
  (void)check_file_exist(path);  // the write callback appends

  const CurlPtr curl(curl_easy_init());
  if (!curl) {
    CUpdateLog::write_log(log_messages::kTransferInitFailed);
    return -1;
  }
  // An option that cannot be set (memory ran out) shows in the transfer, which then lacks it.
  (void)curl_easy_setopt(curl.get(), CURLOPT_URL, url);
  (void)curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, write_to_file);
  (void)curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, path);
  (void)curl_easy_setopt(curl.get(), CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));

  const CURLcode code = curl_easy_perform(curl.get());
  if (code != CURLE_OK) {
    CUpdateLog::write_log(log_messages::kTransferFailed, static_cast<int>(code));
    return -1;
  }
  return 0;
}

std::size_t CUrlOp::write_to_file(void* data, std::size_t size, std::size_t count, void* path) {
  utility::Descriptor file(
      ::open(static_cast<const char*>(path), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, kFileMode));
  if (!file || size == 0) return 0;
  const std::size_t written = utility::write_all(file.get(), data, size * count);
  return file.close() ? written / size : 0;
}

int CUrlOp::check_file_exist(const char* path) {
  if (utility::exists(path)) (void)::unlink(path);
  return 0;
}
