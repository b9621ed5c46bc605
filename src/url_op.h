// HTTP download with libcurl's easy interface.
#pragma once

#include <cstddef>

/// Downloads files. No state, no instances.
class CUrlOp {
 public:
  /// Fetches @a url into the file @a path and replaces what was there.
  ///
  /// Blocks until the transfer ends: one attempt, IPv4 only, no time limit, redirects not followed.
  /// The HTTP status is ignored: the body of a 404 is saved and counts as success; callers check
  /// the contents. An empty body leaves no file; a failed transfer may leave a partial one.
  ///
  /// @param url, path  zero-terminated; the directory of @a path exists
  /// @return 0, or -1 after one line in the update log
  [[nodiscard]] static int url_down_file(const char* url, const char* path);

  /// The transfer's write callback: appends @a count items of @a size bytes to the file @a path.
  /// The file is opened, written and closed for each piece that arrives. Nothing is buffered, so a
  /// full disk aborts the transfer.
  /// @return the number of whole items written; 0 if the file cannot be opened or its close fails
  static std::size_t write_to_file(void* data, std::size_t size, std::size_t count, void* path);

  /// Deletes the file @a path if it exists.
  /// @return always 0
  static int check_file_exist(const char* path);
};
