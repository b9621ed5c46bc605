// The next state of a server tree, while it is being prepared.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace publish {

/// A directory that starts as a copy of what is published, and in which commands replace files.
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

  /// Like put_copy, with @a text as the contents.
  void put_text(const std::string& server_path, const std::string& text);

  /// The path of the file @a server_path in the draft. It need not exist.
  [[nodiscard]] std::filesystem::path file(const std::string& server_path) const;

  [[nodiscard]] const std::filesystem::path& root() const { return root_; }

  /// Paths below root() of the files that were changed, in the order of the calls.
  [[nodiscard]] const std::vector<std::string>& changes() const { return changes_; }

 private:
  [[nodiscard]] std::time_t next_time(const std::string& server_path) const;

  std::filesystem::path root_;
  std::vector<std::filesystem::path> published_;
  std::vector<std::string> changes_;
};

}  // namespace publish
