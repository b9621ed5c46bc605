#include "log_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

namespace host {

namespace {

constexpr std::size_t kBlockBytes = std::size_t{64} * 1024;
constexpr std::string_view kCompressedSuffix = ".gz";

struct GzCloser {
  void operator()(gzFile file) const noexcept { (void)gzclose(file); }
};
using GzPtr = std::unique_ptr<gzFile_s, GzCloser>;

bool ends_with(const std::string& text, std::string_view end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool all_digits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// The length of @a text up to and including its last @a c; 0 if there is none.
std::size_t last_of(std::string_view text, char c) {
  // memrchr: several times as fast as rfind.
  const void* const found = text.empty() ? nullptr : ::memrchr(text.data(), c, text.size());
  if (found == nullptr) return 0;
  return static_cast<std::size_t>(static_cast<const char*>(found) - text.data()) + 1;
}

/// A rotated log, by its name.
struct Rotated {
  std::string name;    ///< as it is in the directory
  std::string number;  ///< its digits: a count of rotations, or a date
};

/// A higher count is an older file. No leading zeros, so the longer number is the higher one.
bool lower_count(const Rotated& a, const Rotated& b) {
  return std::make_pair(a.number.size(), a.number) < std::make_pair(b.number.size(), b.number);
}

bool later_date(const Rotated& a, const Rotated& b) { return a.number > b.number; }

std::time_t modified(const std::string& path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

/// Paths of the rotated logs beside @a path, newest first.
std::vector<std::string> rotated_logs(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string directory = path.substr(0, slash + 1);
  const std::string base = path.substr(slash + 1);
  std::vector<Rotated> counted;
  std::vector<Rotated> dated;
  const utility::DirPtr dir(::opendir(directory.c_str()));
  if (!dir) return {};
  while (const dirent* const entry = ::readdir(dir.get())) {
    const std::string name(entry->d_name);
    if (name.size() <= base.size() + 1 || name.compare(0, base.size(), base) != 0) continue;
    std::string number = name.substr(base.size() + 1);
    if (ends_with(number, kCompressedSuffix)) {
      number.resize(number.size() - kCompressedSuffix.size());
    }
    if (!all_digits(number)) continue;
    if (name[base.size()] == '.') counted.push_back({name, number});
    if (name[base.size()] == '-') dated.push_back({name, number});
  }
  std::sort(counted.begin(), counted.end(), lower_count);
  std::sort(dated.begin(), dated.end(), later_date);

  // Both kinds exist only where the configuration was changed: the newer kind comes first.
  if (!counted.empty() && !dated.empty() &&
      modified(directory + dated.front().name) > modified(directory + counted.front().name)) {
    std::swap(counted, dated);
  }
  counted.insert(counted.end(), dated.begin(), dated.end());

  std::vector<std::string> paths;
  for (const Rotated& log : counted) {
    // While logrotate compresses a file, both exist.
    const bool is_copy =
        ends_with(log.name, kCompressedSuffix) &&
        utility::exists(directory + log.name.substr(0, log.name.size() - kCompressedSuffix.size()));
    if (!is_copy) paths.push_back(directory + log.name);
  }
  return paths;
}

/// Decompresses a file into an unnamed temporary file. Stops soon after @a limit bytes.
/// @return the temporary file and its size, which exceeds @a limit if the text does; nothing if the
///         file cannot be read
std::optional<std::pair<utility::Descriptor, std::size_t>> decompress(const std::string& path,
                                                                      std::size_t limit) {
  const GzPtr in(gzopen(path.c_str(), "rbe"));
  const utility::FilePtr out(std::tmpfile());
  if (!in || !out) return std::nullopt;
  utility::Descriptor text(::dup(::fileno(out.get())));  // fcntl() would need glibc 2.28
  if (!text) return std::nullopt;
  std::vector<char> block(kBlockBytes);
  std::size_t size = 0;
  while (size <= limit) {
    const int count = gzread(in.get(), block.data(), static_cast<unsigned>(block.size()));
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    const auto bytes = static_cast<std::size_t>(count);
    if (utility::write_all(text.get(), block.data(), bytes) != bytes) return std::nullopt;
    size += bytes;
  }
  return std::make_pair(std::move(text), size);
}

}  // namespace

BackwardFile::BackwardFile(utility::Descriptor file, std::size_t size, std::size_t limit)
    : file_(std::move(file)),
      size_(size),
      unread_(size),
      limit_(std::min(limit, size)),
      buffer_(kBlockBytes + kMaxLineBytes) {}

bool BackwardFile::next(std::string_view& line) {
  while (!done_) {
    if (at_end_of_line_) drop_line_end();
    const std::string_view text(buffer_.data() + begin_, end_ - begin_);
    std::size_t length = last_of(text, '\n');
    const std::size_t zero = last_of(text.substr(length), '\0');
    if (zero > 0) {
      length += zero;
      at_end_of_line_ = true;
    } else if (length == 0) {
      if (load_block()) continue;
      done_ = true;
      if (unread_ != 0 || at_end_of_line_) break;  // a part of a line, or nothing
    }
    line = text.substr(length);
    // The line end before this line stays in the buffer only if it is a NUL.
    end_ = begin_ + length - (length > 0 && zero == 0 ? 1 : 0);
    const bool is_whole = !std::exchange(skipping_, false) && line.size() <= kMaxLineBytes;
    if (is_whole && !(zero > 0 && line.empty())) return true;
  }
  return false;
}

/// Drops the line end of the last line in the buffer. A file that was not flushed before a power
/// cut may have NULs in place of lines.
void BackwardFile::drop_line_end() {
  while (end_ > begin_ && buffer_[end_ - 1] == '\0') --end_;
  if (end_ == begin_) return;
  if (buffer_[end_ - 1] == '\n') --end_;
  at_end_of_line_ = false;
}

/// Puts the preceding block of the file before the text in the buffer.
/// @return false when there is none
bool BackwardFile::load_block() {
  const std::size_t size = std::min({kBlockBytes, unread_, limit_ - bytes_read()});
  if (size == 0) return false;
  if (end_ - begin_ > kMaxLineBytes) {
    skipping_ = true;
    end_ = begin_;
  }
  const std::size_t kept = end_ - begin_;
  std::memmove(buffer_.data() + size, buffer_.data() + begin_, kept);
  std::size_t count = 0;
  while (count < size) {
    const ssize_t bytes = ::pread(file_.get(), buffer_.data() + count, size - count,
                                  static_cast<off_t>(unread_ - size + count));
    if (bytes < 0 && errno == EINTR) continue;
    if (bytes <= 0) return false;  // an error, or the file was truncated
    count += static_cast<std::size_t>(bytes);
  }
  unread_ -= size;
  begin_ = 0;
  end_ = size + kept;
  return true;
}

LogReader::LogReader(const std::string& path, std::size_t limit) : limit_(limit) {
  // The log is opened before the directory is read: a rotation in between is noticed by the
  // identity of the file, and no line is missed or returned twice.
  open_plain(path);
  const std::vector<std::string> rotated = rotated_logs(path);
  waiting_.assign(rotated.begin(), rotated.end());
}

bool LogReader::next(std::string_view& line) {
  for (;;) {
    if (current_) {
      if (current_->lines.next(line)) return true;
      limit_ -= current_->lines.bytes_read();
      limit_reached_ = limit_ == 0 && current_->lines.bytes_read() < current_->size;
      current_.reset();
    }
    if (limit_reached_ || waiting_.empty()) return false;
    if (limit_ == 0) {
      limit_reached_ = true;
      return false;
    }
    const std::string path = std::move(waiting_.front());
    waiting_.pop_front();
    if (ends_with(path, kCompressedSuffix)) {
      open_compressed(path);
    } else {
      open_plain(path);
    }
  }
}

void LogReader::open_plain(const std::string& path) {
  utility::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    if (file || errno != ENOENT) unreadable_.push_back(path);
    return;
  }
  const std::pair<dev_t, ino_t> identity(status.st_dev, status.st_ino);
  if (std::find(opened_.begin(), opened_.end(), identity) != opened_.end()) return;
  opened_.push_back(identity);
  const auto size = static_cast<std::size_t>(status.st_size);
  written_ = status.st_mtime;
  current_.emplace(File{size, BackwardFile(std::move(file), size, limit_)});
}

void LogReader::open_compressed(const std::string& path) {
  std::optional<std::pair<utility::Descriptor, std::size_t>> text = decompress(path, limit_);
  if (!text) {
    unreadable_.push_back(path);
    return;
  }
  if (text->second > limit_) {
    limit_reached_ = true;
    return;
  }
  written_ = modified(path);
  const std::size_t size = text->second;
  current_.emplace(File{size, BackwardFile(std::move(text->first), size, limit_)});
}

}  // namespace host
