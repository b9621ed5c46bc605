#include "utility/durable_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <optional>
#include <utility>

#include "utility/file.h"

namespace utility {

namespace {

constexpr char kNewSuffix[] = ".new";
constexpr std::size_t kMaxLinkBytes = 4096;  // PATH_MAX: no link is longer
constexpr int kMaxLinks = 40;                // in a row; the kernel follows no more either
constexpr int kNamingAttempts = 100;
constexpr mode_t kPermissionBits = 07777;

/// The file to replace: a name in an open directory, so that every step meets the same directory.
struct Target {
  Descriptor directory;
  std::string name;
  std::string new_name;            ///< what the new version is called until it is in place
  std::optional<struct stat> old;  ///< nothing when there is no old version
};

/// The file that @a path means: where that is a symbolic link the one at its end, which need not
/// exist. Links among the directories in front of it are left to the kernel.
std::string follow_links(std::string path) {
  for (int links = 0; links < kMaxLinks; ++links) {
    std::array<char, kMaxLinkBytes> buffer{};
    const ssize_t size = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (size < 0) break;
    const std::string link(buffer.data(), static_cast<std::size_t>(size));
    path.replace(link[0] == '/' ? 0 : path.rfind('/') + 1, std::string::npos, link);
  }
  return path;
}

/// @return nothing when the directory cannot be opened, and when @a path is something other than a
///         file: a rename would put the new version in the place of a device, not write to it
std::optional<Target> open_target(const std::string& path) {
  const std::string file = follow_links(path);
  const std::size_t name_begin = file.rfind('/') + 1;
  const std::string directory = name_begin == 0 ? "." : file.substr(0, name_begin);
  const std::string name = file.substr(name_begin);
  Target target{Descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), name,
                name + kNewSuffix, std::nullopt};
  if (!target.directory) return std::nullopt;
  struct stat status = {};
  const bool exists = ::fstatat(target.directory.get(), name.c_str(), &status, 0) == 0;
  if (exists ? !S_ISREG(status.st_mode) : errno != ENOENT) return std::nullopt;
  if (exists) target.old = status;
  return target;
}

void remove_new_version(const Target& target) {
  (void)::unlinkat(target.directory.get(), target.new_name.c_str(), 0);
}

/// Makes the new, empty @a file the whole new version, and waits until it is on disk.
bool fill(const Descriptor& file, const Target& target, const std::string& contents) {
  // The owner first: a change of the owner takes the set-user-ID bit away.
  const bool like_old =
      !target.old || (::fchown(file.get(), target.old->st_uid, target.old->st_gid) == 0 &&
                      ::fchmod(file.get(), target.old->st_mode & kPermissionBits) == 0);
  if (!like_old) return false;
  return write_all(file.get(), contents.data(), contents.size()) == contents.size() &&
         ::fsync(file.get()) == 0;
}

/// Gives the unnamed @a file the new version's name, in the place of what a killed call left there.
/// Several attempts, because calls in other processes may use the name at the same time.
///
/// @return false when the file cannot be named this way, for example without /proc
bool name_file(const Descriptor& file, const Target& target) {
  const std::string source = "/proc/self/fd/" + std::to_string(file.get());
  for (int attempt = 0; attempt < kNamingAttempts; ++attempt) {
    const int result = ::linkat(AT_FDCWD, source.c_str(), target.directory.get(),
                                target.new_name.c_str(), AT_SYMLINK_FOLLOW);
    if (result == 0 || errno != EEXIST) return result == 0;
    remove_new_version(target);
  }
  return false;
}

/// Writes the new version: under its name when this returns, and on disk. A kill before leaves
/// nothing behind where the file system has unnamed files, and a part of it elsewhere.
///
/// @return none when a step failed; then nothing is left under the name
Descriptor create_new_version(const Target& target, const std::string& contents) {
  // Nobody may read the new version who may not read the old one; fill() adds what is missing.
  const mode_t mode = target.old ? 0600 : 0666;
  Descriptor unnamed(::openat(target.directory.get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode));
  const bool filled = unnamed && fill(unnamed, target, contents);
  if (filled && name_file(unnamed, target)) return unnamed;
  remove_new_version(target);
  if (unnamed && !filled) return Descriptor(-1);
  (void)unnamed.close();  // gives its space back
  Descriptor named(::openat(target.directory.get(), target.new_name.c_str(),
                            O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, mode));
  if (named && !fill(named, target, contents)) {
    remove_new_version(target);
    return Descriptor(-1);
  }
  return named;
}

/// Whether the new version's name still belongs to @a file, and not to that of another process.
bool has_new_name(const Descriptor& file, const Target& target) {
  const int directory = target.directory.get();
  struct stat ours = {};
  struct stat named = {};
  return ::fstat(file.get(), &ours) == 0 &&
         ::fstatat(directory, target.new_name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         ours.st_dev == named.st_dev && ours.st_ino == named.st_ino;
}

/// Reserves space for @a size bytes, without changing the length of the file where the file system
/// can do that.
bool reserve(const Descriptor& file, off_t size) {
  if (size == 0 || ::fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, size) == 0) return true;
  return errno == EOPNOTSUPP && ::posix_fallocate(file.get(), 0, size) == 0;
}

enum class InPlace { kWritten, kUntouched, kCut };

/// Overwrites the old version. Its space is reserved first, so that a full disk shows while the
/// old contents are still whole. The rest of a longer old version is overwritten with line feeds
/// before it is cut off: to a reader that comes in between, or after a kill, they are blanks.
InPlace write_in_place(const Target& target, std::string contents) {
  const Descriptor file(::openat(target.directory.get(), target.name.c_str(), O_RDWR | O_CLOEXEC));
  struct stat old = {};
  if (!file || ::fstat(file.get(), &old) != 0) return InPlace::kUntouched;
  const auto size = static_cast<off_t>(contents.size());
  if (!reserve(file, size)) {
    return ::ftruncate(file.get(), old.st_size) == 0 ? InPlace::kUntouched : InPlace::kCut;
  }
  if (size < old.st_size) contents.resize(static_cast<std::size_t>(old.st_size), '\n');
  const bool written = write_all(file.get(), contents.data(), contents.size()) == contents.size() &&
                       ::ftruncate(file.get(), size) == 0 && ::fsync(file.get()) == 0;
  return written ? InPlace::kWritten : InPlace::kCut;
}

bool put_in_place(const Descriptor& file, const Target& target, const std::string& contents) {
  const int directory = target.directory.get();
  if (!has_new_name(file, target)) return false;
  if (::renameat(directory, target.new_name.c_str(), directory, target.name.c_str()) == 0) {
    return ::fsync(directory) == 0;
  }
  // Until a mount point is rewritten, the new version stands beside it, whole: what a crash or an
  // I/O error cuts can be restored from there.
  const bool mount_point = errno == EBUSY && ::fsync(directory) == 0;
  const InPlace result = mount_point ? write_in_place(target, contents) : InPlace::kUntouched;
  if (result != InPlace::kCut && has_new_name(file, target)) remove_new_version(target);
  return result == InPlace::kWritten;
}

}  // namespace

bool replace_durably(const std::string& path, const std::string& contents) {
  const std::optional<Target> target = open_target(path);
  if (!target) return false;
  const Descriptor new_version = create_new_version(*target, contents);
  return new_version && put_in_place(new_version, *target, contents);
}

}  // namespace utility
