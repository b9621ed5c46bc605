// The next state of a server tree, while it is put together.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace publish {

/// A directory that begins as a second version of what is published; commands replace files in it.
class Draft {
 public:
  /// @param root  the directory
  /// @param published  directories that are or were served. A changed file becomes at least one
  ///                   second newer than its predecessors there: servers derive the ETag from size
  ///                   and whole seconds, and caches would keep the predecessor.
  Draft(std::filesystem::path root, std::vector<std::filesystem::path> published);

  /// Puts a copy of @a source at @a server_path, which begins with "/". Nothing happens if the
  /// contents are there already.
  /// @throws Failure
  void put_copy(const std::string& server_path, const std::filesystem::path& source);

  /// put_copy of @a text.
  void put_text(const std::string& server_path, const std::string& text);

  /// Where the draft has the file @a server_path, which need not exist.
  [[nodiscard]] std::filesystem::path file(const std::string& server_path) const;

  [[nodiscard]] const std::filesystem::path& root() const { return root_; }

  /// Paths below root() of what was put and differs, in this order.
  [[nodiscard]] const std::vector<std::string>& changes() const { return changes_; }

 private:
  [[nodiscard]] std::time_t next_time(const std::string& server_path) const;

  std::filesystem::path root_;
  std::vector<std::filesystem::path> published_;
  std::vector<std::string> changes_;
};

}  // namespace publish
