// Shared file operations and RAII wrappers for handles. Nothing here writes to the update log.
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

/// The mode of new files before the umask applies: that of files which stdio creates.
inline constexpr mode_t kNewFileMode = 0666;

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { (void)std::fclose(file); }
};
/// A stdio stream opened for reading. Files are not written through streams: an error may surface
/// only in the close, whose result a destructor loses.
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

struct DirCloser {
  void operator()(DIR* dir) const noexcept { (void)::closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

/// Owns a file descriptor; -1 means none.
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

  /// Closes the descriptor, for callers that need the result: a network file system may report a
  /// failed write only here.
  /// @return false if the close failed; true if there was nothing to close
  [[nodiscard]] bool close() noexcept { return fd_ < 0 || ::close(release()) == 0; }

 private:
  int release() noexcept {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  int fd_;
};

/// Whether something exists at @a path. Symbolic links are followed.
[[nodiscard]] bool exists(const std::string& path);

/// `read`, repeated after interruptions.
/// @return the number of bytes read, 0 at the end of the file, -1 on an error
[[nodiscard]] ssize_t read_some(int fd, void* block, std::size_t size);

/// Writes all @a size bytes, continuing after short writes and interruptions.
/// @return the number of bytes written: less than @a size if a write failed
[[nodiscard]] std::size_t write_all(int fd, const void* data, std::size_t size);

enum class CopyResult {
  kCopied,      ///< the target holds all bytes of the source
  kReadFailed,  ///< the target holds everything before the read error
  kFailed,      ///< no target, or still the old one if it could not be deleted or memory ran out
};

/// Replaces @a target with a copy of @a source. The old target is deleted first, even if the source
/// then cannot be opened. The new target gets the permissions of a newly created file.
[[nodiscard]] CopyResult copy_file(const char* source, const char* target);

/// Reads the first line of a text file.
///
/// @param limit  as for `fgets`: at most limit - 1 bytes are read; the rest of a longer line is
///               ignored. The text ends at the first zero byte, if any.
/// @return the line, with its line feed if it was read; empty for an empty file; nothing if the
///         file cannot be opened or read
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

/// Removes one line feed from the end of @a text, if there is one.
void remove_line_feed(std::string& text);

/// Creates the work directory of an updater with mode 0644: without search permission, so that only
/// root can access its files. Failures are ignored, as is an existing directory: the steps that
/// need it fail and report it.
void make_work_dir(const std::string& path);

}  // namespace utility
