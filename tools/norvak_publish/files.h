// Puts files into a server tree atomically: a file has its final name only when it is complete.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "utility/file.h"

namespace publish {

/// Suffix of a file's name until the file is complete. A crash can leave a file under such a name;
/// check_tree reports it.
inline constexpr char kTemporarySuffix[] = ".norvak_publish";

/// Creates a directory that everyone may read, whatever the umask; one that exists is left alone.
/// @throws Failure
void make_directory(const std::filesystem::path& path);

/// make_directory for @a path and its missing parents.
void make_directories(const std::filesystem::path& path);

/// A new file. It has a temporary name until commit() gives it its own; without that, the
/// destructor deletes it.
class NewFile {
 public:
  /// @throws Failure  the file cannot be created
  explicit NewFile(std::filesystem::path target);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  /// The descriptor to write to.
  [[nodiscard]] int fd() const { return file_.get(); }

  /// @throws Failure
  void write(const char* data, std::size_t size);

  /// Sets the modification time.
  /// @throws Failure
  void set_time(const struct timespec& changed);

  /// Sets the permissions, flushes the file to disk and renames it over the target.
  /// @throws Failure  the target is unchanged then
  void commit(mode_t mode);

 private:
  std::filesystem::path target_;
  std::filesystem::path temporary_;
  utility::Descriptor file_;
  bool committed_ = false;
};

/// Replaces @a target with a copy of @a source: written under a temporary name, flushed to disk and
/// renamed. Everyone may read the new file and nobody write it, because releases share it.
/// @param changed  its modification time, in seconds since 1970
/// @throws Failure  @a target is unchanged then
void install_copy(const std::filesystem::path& source, const std::filesystem::path& target,
                  std::time_t changed);

/// Like install_copy, with @a text as the contents.
void install_text(const std::string& text, const std::filesystem::path& target,
                  std::time_t changed);

/// Modification time in whole seconds, as a web server sees it; 0 if there is no file @a path.
[[nodiscard]] std::time_t modification_time(const std::filesystem::path& path);

/// Whether the regular file @a path holds exactly @a text; false if there is none.
[[nodiscard]] bool holds_text(const std::filesystem::path& path, const std::string& text);

/// Whether @a path is a regular file with the contents of @a source.
/// @throws Failure  @a source cannot be read
[[nodiscard]] bool holds_copy(const std::filesystem::path& path,
                              const std::filesystem::path& source);

/// Creates @a to as a hard link to @a from. Where the file system refuses (another device, a file
/// of somebody else, too many links), as a copy with the same mode and times.
/// @throws Failure
void link_or_copy(const std::filesystem::path& from, const std::filesystem::path& to);

/// Copies the published files below @a from (see list_files) to @a to with link_or_copy.
/// @throws Failure
void link_tree(const std::filesystem::path& from, const std::filesystem::path& to);

/// Deletes @a path with everything in it, if it exists.
/// @throws Failure
void remove_tree(const std::filesystem::path& path);

/// Renames @a from to @a to, which is replaced.
/// @throws Failure
void rename_path(const std::filesystem::path& from, const std::filesystem::path& to);

/// Waits until the entries of the directory @a path are on disk.
/// @throws Failure
void flush_directory(const std::filesystem::path& path);

/// Waits until everything on the file system of @a path is on disk.
/// @throws Failure
void flush_file_system(const std::filesystem::path& path);

}  // namespace publish
