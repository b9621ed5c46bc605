#include "url_op.h"

#include <fcntl.h>
#include <unistd.h>

#include "log.h"
#include "log_messages.h"
#include "transfer.h"
#include "utility/file.h"

int CUrlOp::url_down_file(const char* url, const char* path) {
  (void)check_file_exist(path);  // the write callback appends

  const transfer::CurlPtr curl = transfer::prepare(url, write_to_file, path);
  if (!curl) {
    CUpdateLog::write_log(log_messages::kTransferInitFailed);
    return -1;
  }
  const CURLcode code = curl_easy_perform(curl.get());
  if (code != CURLE_OK) {
    CUpdateLog::write_log(log_messages::kTransferFailed, static_cast<int>(code));
    return -1;
  }
  return 0;
}

std::size_t CUrlOp::write_to_file(void* data, std::size_t size, std::size_t count, void* path) {
  utility::Descriptor file(::open(static_cast<const char*>(path),
                                  O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, utility::kNewFileMode));
  if (!file || size == 0) return 0;
  const std::size_t written = utility::write_all(file.get(), data, size * count);
  return file.close() ? written / size : 0;
}

int CUrlOp::check_file_exist(const char* path) {
  if (utility::exists(path)) (void)::unlink(path);
  return 0;
}
