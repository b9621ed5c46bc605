// The file operations that several parts of the program share, and the owners of the handles they
// use. Nothing here writes to the update log.
#pragma once

#include <dirent.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

namespace utility {

/// The mode of every new file, less the umask, as stdio creates them.
inline constexpr mode_t kNewFileMode = 0666;

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { (void)std::fclose(file); }
};
/// A stdio stream opened for reading: closed on destruction. Streams that are written are not used
/// in this program, because their errors may show only at a close whose result is lost.
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

struct DirCloser {
  void operator()(DIR* dir) const noexcept { (void)::closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

/// Owner of a file descriptor; -1 stands for none.
class Descriptor {
 public:
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() { (void)close(); }

  explicit operator bool() const noexcept { return fd_ >= 0; }
  [[nodiscard]] int get() const noexcept { return fd_; }

  /// Closes now, for callers to whom the result matters: a network file system may report a failed
  /// write only here.
  /// @return false when the close failed; true when there was nothing to close
  [[nodiscard]] bool close() noexcept { return fd_ < 0 || ::close(release()) == 0; }

 private:
  int release() noexcept {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  int fd_;
};

/// Whether something exists at @a path. A symbolic link counts as what it points to.
[[nodiscard]] bool exists(const std::string& path);

/// `read` that goes on after interruptions.
/// @return the number of bytes read, 0 at the end of the file, -1 on an error
[[nodiscard]] ssize_t read_some(int fd, void* block, std::size_t size);

/// Writes all of @a size bytes, going on after short writes and interruptions.
/// @return the number of bytes written: less than @a size when a write failed
[[nodiscard]] std::size_t write_all(int fd, const void* data, std::size_t size);

enum class CopyResult {
  kCopied,      ///< the target holds all bytes of the source
  kReadFailed,  ///< the target holds the bytes in front of the one that could not be read
  kFailed,      ///< there is no target, or still the old one: it could not be deleted, or memory
                ///< ran out
};

/// Replaces @a target by a copy of @a source: the old target is deleted first, the new one gets the
/// permissions of a newly created file. The source is kept.
///
/// When the source cannot be opened, the old target is gone all the same.
[[nodiscard]] CopyResult copy_file(const char* source, const char* target);

/// Reads the first line of a text file.
///
/// @param limit  as that of `fgets`: at most limit - 1 bytes are read; the rest of a longer line is
///               ignored. The text ends at the first zero byte, if there is one.
/// @return the line with its line feed, if one was read, and empty for an empty file; nothing when
///         the file cannot be opened or read
[[nodiscard]] std::optional<std::string> read_first_line(const std::string& path, int limit);

/// Reads a text file line by line.
class LineReader {
 public:
  /// @param limit  as in read_first_line; a longer line is read in several pieces
  LineReader(const std::string& path, int limit);

  /// Whether the file could be opened.
  explicit operator bool() const noexcept { return file_ != nullptr; }

  /// @param[out] line  the next line without its line feed
  /// @return false at the end of the file; a read error counts as its end
  [[nodiscard]] bool next(std::string& line);

 private:
  FilePtr file_;
  std::string buffer_;
};

/// Removes one line feed from the end of @a text, if one stands there.
void remove_line_feed(std::string& text);

/// Creates the work directory of an updater with the permission bits 0644: without a search bit,
/// so that nobody but root reaches into it. Failures are ignored, and an existing directory is
/// none: what needs the directory fails later and says so.
void make_work_dir(const std::string& path);

}  // namespace utility
