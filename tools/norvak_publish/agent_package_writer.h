// Builds agent packages: tar archives with the files to install and the script that installs them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace publish {

/// A line of the manifest that says what to do with one path.
struct PackageEntry {
  /// file, dir and link install that path of the payload; remove removes it on hosts; pre and post
  /// are shell scripts of the payload that run before and after the new files replace the old ones.
  std::string type;
  std::string mode;   ///< octal; "-" except for file and dir
  std::string owner;  ///< name or number; "-" except for file, dir and link
  std::string group;  ///< likewise
  std::string path;   ///< below the payload and the install directory
};

/// Reads a manifest: the five fields of an entry, separated by tabs, in each line. Empty lines and
/// lines that begin with "#" are skipped.
/// @throws Failure  it cannot be read, or a line is invalid
[[nodiscard]] std::vector<PackageEntry> read_package_manifest(const std::filesystem::path& path);

struct PackageContents {
  std::string version;
  std::filesystem::path payload;
  std::vector<PackageEntry> entries;
  bool replace_config = false;  ///< allow config.xml, which holds the hosts' server addresses
};

/// Compares the entries with the payload. An entry to install must exist there with its type, and
/// its parent directory must be an entry, too; one to remove must not exist. Everything else in the
/// payload is an error.
/// @return what is wrong, one sentence each
[[nodiscard]] std::vector<std::string> check_contents(const PackageContents& contents);

/// Writes the package. The same contents give the same bytes.
/// @pre check_contents found nothing wrong
/// @throws Failure  also for what a ustar archive cannot hold; @a output is unchanged then
void write_package(const std::filesystem::path& output, const PackageContents& contents);

/// @a text as one word of the shell.
[[nodiscard]] std::string shell_quoted(const std::string& text);

}  // namespace publish
