// Reading a server tree for the check: directories, and the files that hosts request.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "check_findings.h"

namespace publish {

/// A tree on disk. Paths begin with "/", as on the server; the empty path is the root.
class TreeReader {
 public:
  explicit TreeReader(std::string root) : root_(std::move(root)) {}

  /// Where @a path is on disk.
  [[nodiscard]] std::string on_disk(const std::string& path) const { return root_ + path; }

  /// Whether there is an entry @a path. Symbolic links are not followed.
  [[nodiscard]] bool exists(const std::string& path) const;

  /// The names in the directory @a path in ascending order, without leftovers. Adds findings about
  /// the directory itself and about the names.
  [[nodiscard]] std::vector<std::string> list(const std::string& path, Findings& findings) const;

  /// Whether @a path is a file. Adds a finding if it is not, or if the web server may not read it.
  /// @param why  what happens to hosts without it, as a sentence
  bool require_file(const std::string& path, const std::string& why, Findings& findings) const;

  /// Adds a note for an entry that no host requests.
  static void add_unrequested(const std::string& path, Findings& findings);

  /// The path of the entry @a name in @a directory.
  [[nodiscard]] static std::string join(const std::string& directory, const std::string& name);

  /// "/kernels" for "/kernels/".
  [[nodiscard]] static std::string without_slash(const std::string& directory) {
    return directory.substr(0, directory.size() - 1);
  }

  /// @a path as findings name it.
  [[nodiscard]] static std::string shown(const std::string& path) {
    return path.empty() ? "." : path.substr(1);
  }

 private:
  std::string root_;
};

}  // namespace publish
