// Reads the update log backwards, across its rotated predecessors.
#pragma once

#include <cstddef>
#include <ctime>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "utility/file.h"

namespace host {

/// The lines of one file, last line first. A NUL ends a line as well. Holds one block and one line
/// in memory.
class BackwardFile {
 public:
  /// Lines with more bytes are skipped: the updater writes none.
  static constexpr std::size_t kMaxLineBytes = 4096;

  /// @param file   a regular file, open for reading
  /// @param limit  how many bytes to read at most, counted from the end of the file
  BackwardFile(utility::Descriptor file, std::size_t size, std::size_t limit);

  /// @param[out] line  without its line feed; valid until the next call
  /// @return false when there is no line left, or the limit is reached
  [[nodiscard]] bool next(std::string_view& line);

  [[nodiscard]] std::size_t bytes_read() const { return size_ - unread_; }

 private:
  [[nodiscard]] bool load_block();
  void drop_line_end();

  utility::Descriptor file_;
  std::size_t size_;
  std::size_t unread_;  ///< bytes of the file before those in the buffer
  std::size_t limit_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;  ///< the part of the buffer that is still to be returned
  std::size_t end_ = 0;
  bool done_ = false;
  bool at_end_of_line_ = true;  ///< the text to be returned ends with a line end to be dropped
  bool skipping_ = false;       ///< inside a line that is too long
};

/// The lines of `update.log` and of its predecessors as logrotate names them: `update.log.1`,
/// `update.log.2.gz`, `update.log-20260131`, `update.log-20260131.gz`. Newest first.
class LogReader {
 public:
  static constexpr std::size_t kNoLimit = static_cast<std::size_t>(-1);

  /// @param path   of the log; its predecessors are in the same directory
  /// @param limit  how many bytes of text to read at most, in all files together. A compressed file
  ///               is read only if all of its text is within the limit.
  LogReader(const std::string& path, std::size_t limit);

  /// @param[out] line  without its line feed; valid until the next call
  /// @return false when there is no line left, or the limit is reached
  [[nodiscard]] bool next(std::string_view& line);

  /// When the file that holds the current line was last written: no line in it is newer.
  [[nodiscard]] std::time_t written() const { return written_; }

  /// Whether the limit left text unread.
  [[nodiscard]] bool limit_reached() const { return limit_reached_; }

  /// Files that exist and could not be read.
  [[nodiscard]] const std::vector<std::string>& unreadable() const { return unreadable_; }

 private:
  struct File {
    std::size_t size;  ///< of its text
    BackwardFile lines;
  };

  void open_plain(const std::string& path);
  void open_compressed(const std::string& path);

  std::size_t limit_;
  std::deque<std::string> waiting_;  ///< files that have not been opened, newest first
  std::vector<std::pair<dev_t, ino_t>> opened_;
  std::optional<File> current_;
  std::time_t written_ = 0;
  bool limit_reached_ = false;
  std::vector<std::string> unreadable_;
};

}  // namespace host
