#include "utility/file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <new>

namespace utility {

namespace {

/// Bytes per system call of a copy.
constexpr std::size_t kCopyBlockBytes = std::size_t{128} * 1024;

constexpr mode_t kWorkDirMode = 0644;

/// @param block  room for kCopyBlockBytes
CopyResult copy_contents(int source, int target, char* block) {
  for (;;) {
    const ssize_t count = read_some(source, block, kCopyBlockBytes);
    if (count == 0) return CopyResult::kCopied;
    if (count < 0) return CopyResult::kReadFailed;
    const auto size = static_cast<std::size_t>(count);
    if (write_all(target, block, size) != size) return CopyResult::kFailed;
  }
}

/// Creates the file exclusively. If it already exists, another run created it (or the existence
/// check failed), so it is left alone. A dangling symbolic link is followed: the file is created
/// where it points.
Descriptor create_target(const char* path) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
  const int fd = ::open(path, kFlags | O_EXCL, kNewFileMode);
  struct stat status = {};
  if (fd < 0 && errno == EEXIST && ::lstat(path, &status) == 0 && S_ISLNK(status.st_mode)) {
    return Descriptor(::open(path, kFlags, kNewFileMode));
  }
  return Descriptor(fd);
}

}  // namespace

bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

ssize_t read_some(int fd, void* block, std::size_t size) {
  ssize_t count = -1;
  do {
    count = ::read(fd, block, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

std::size_t write_all(int fd, const void* data, std::size_t size) {
  const char* const bytes = static_cast<const char*>(data);
  std::size_t written = 0;
  while (written < size) {
    const ssize_t count = ::write(fd, bytes + written, size - written);
    if (count > 0) {
      written += static_cast<std::size_t>(count);
    } else if (count == 0 || errno != EINTR) {
      break;
    }
  }
  return written;
}

CopyResult copy_file(const char* source, const char* target) {
  // Allocated first, so that a lack of memory costs no file. On the heap: -fstack-clash-protection
  // probes every page of a large stack buffer, which takes 2 % of a small run.
  const std::unique_ptr<char[]> block(new (std::nothrow) char[kCopyBlockBytes]);
  if (!block) return CopyResult::kFailed;
  if (exists(target) && ::unlink(target) != 0) return CopyResult::kFailed;
  const Descriptor in(::open(source, O_RDONLY | O_CLOEXEC));
  if (!in) return CopyResult::kFailed;
  Descriptor out = create_target(target);
  if (!out) return CopyResult::kFailed;

  CopyResult result = copy_contents(in.get(), out.get(), block.get());
  if (!out.close()) result = CopyResult::kFailed;
  if (result == CopyResult::kFailed) (void)::unlink(target);  // a partial file is worse than none
  return result;
}

std::optional<std::string> read_first_line(const std::string& path, int limit) {
  const FilePtr file(std::fopen(path.c_str(), "re"));
  if (!file) return std::nullopt;
  std::string buffer(static_cast<std::size_t>(limit) + 1, '\0');
  const bool found = std::fgets(buffer.data(), limit, file.get()) != nullptr;
  if (std::ferror(file.get()) != 0) return std::nullopt;
  return found ? buffer.substr(0, buffer.find('\0')) : std::string();
}

LineReader::LineReader(const std::string& path, int limit)
    : file_(std::fopen(path.c_str(), "re")), buffer_(static_cast<std::size_t>(limit) + 1, '\0') {}

bool LineReader::next(std::string& line) {
  const int limit = static_cast<int>(buffer_.size()) - 1;
  if (!file_ || std::fgets(buffer_.data(), limit, file_.get()) == nullptr) return false;
  line.assign(buffer_, 0, buffer_.find('\0'));
  remove_line_feed(line);
  return true;
}

void remove_line_feed(std::string& text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
}

void make_work_dir(const std::string& path) { (void)::mkdir(path.c_str(), kWorkDirMode); }

}  // namespace utility
