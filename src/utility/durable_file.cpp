#include "utility/durable_file.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <set>

#include "utility/file.h"

namespace utility {

namespace {

constexpr char kNameLetters[] = "abcdefghijklmnopqrstuvwxyz234567";
constexpr std::size_t kNameLetterCount = 6;
constexpr int kNamingAttempts = 100;
constexpr int kNewFileFlags = O_WRONLY | O_CLOEXEC;
constexpr mode_t kPrivateMode = 0600;  // until the new file gets the mode of the old one

/// Links the unnamed file @a fd to a free name. If @a fd is -1, creates a file with such a name
/// instead and sets @a fd.
/// @return the name: @a prefix, a dot and random letters; empty on failure
std::string take_free_name(int directory, const std::string& prefix, int& fd) {
  const std::string file = "/proc/self/fd/" + std::to_string(fd);
  // A name that differs between processes and calls is enough: a taken one is never overwritten.
  struct timeval now = {};
  (void)::gettimeofday(&now, nullptr);
  const auto seed = static_cast<std::uint32_t>(now.tv_usec) << 12U ^
                    static_cast<std::uint32_t>(now.tv_sec) ^ static_cast<std::uint32_t>(::getpid());
  for (int attempt = 0; attempt < kNamingAttempts; ++attempt) {
    std::uint32_t letters = seed + 7777U * static_cast<std::uint32_t>(attempt);
    std::string name = prefix + '.';
    for (std::size_t i = 0; i < kNameLetterCount; ++i, letters /= 32)
      name += kNameLetters[letters % 32];
    if (fd < 0) {
      fd = ::openat(directory, name.c_str(), O_CREAT | O_EXCL | kNewFileFlags, kPrivateMode);
      if (fd >= 0) return name;
    } else if (::linkat(AT_FDCWD, file.c_str(), directory, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      return name;
    }
    if (errno != EEXIST) break;
  }
  return "";
}

/// The names of a file's extended attributes, ACL and security label included, without those that
/// the kernel derives from the contents.
std::optional<std::set<std::string>> attribute_names(int fd) {
  std::string list(XATTR_LIST_MAX, '\0');
  if (::flistxattr(fd, list.data(), list.size()) < 0 && errno != EOPNOTSUPP) return std::nullopt;
  std::set<std::string> names;
  for (const char* name = list.c_str(); *name != '\0'; name += std::strlen(name) + 1) {
    names.insert(name);
  }
  names.erase("security.ima");
  names.erase("security.evm");
  return names;
}

bool copy_attributes(int from, int to) {
  const auto wanted = attribute_names(from);
  const auto inherited = attribute_names(to);
  if (!wanted || !inherited) return false;
  for (const std::string& name : *inherited) {
    if (wanted->count(name) == 0 && ::fremovexattr(to, name.c_str()) != 0) return false;
  }
  std::string value(XATTR_SIZE_MAX, '\0');
  return std::all_of(wanted->begin(), wanted->end(), [&](const std::string& name) {
    const ssize_t size = ::fgetxattr(from, name.c_str(), value.data(), value.size());
    return size >= 0 &&
           ::fsetxattr(to, name.c_str(), value.data(), static_cast<std::size_t>(size), 0) == 0;
  });
}

/// Writes @a contents to @a to and gives it the owner, attributes and mode of @a from. The order
/// matters: a write and a change of owner clear capabilities and special mode bits, and an ACL
/// changes the mode.
bool fill(int to, int from, const std::string& contents) {
  struct stat old = {};
  return write_all(to, contents.data(), contents.size()) == contents.size() &&
         ::fstat(from, &old) == 0 && ::fchown(to, old.st_uid, old.st_gid) == 0 &&
         copy_attributes(from, to) && ::fchmod(to, old.st_mode & 07777) == 0 && ::fsync(to) == 0;
}

bool replace_by_new_file(int directory, const std::string& name, const std::string& contents) {
  const Descriptor old_file(::openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC));
  std::string new_name;
  int fd = ::openat(directory, ".", O_TMPFILE | kNewFileFlags, kPrivateMode);
  if (fd < 0) new_name = take_free_name(directory, name, fd);
  const Descriptor new_file(fd);
  const bool filled = new_file && fill(fd, old_file.get(), contents);
  if (filled && new_name.empty()) new_name = take_free_name(directory, name, fd);
  if (new_name.empty()) return false;
  if (filled && ::renameat(directory, new_name.c_str(), directory, name.c_str()) == 0) return true;
  (void)::unlinkat(directory, new_name.c_str(), 0);
  return false;
}

/// Overwrites the file, or creates it. If the new version is longer, line feeds reserve its space
/// first, so that a full disk is noticed while the old text is intact. If it is shorter, line feeds
/// overwrite the rest of the old text before it is cut off. Readers take them for white space.
bool write_in_place(const std::string& path, std::string contents) {
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kNewFileMode));
  const off_t old_size = ::lseek(file.get(), 0, SEEK_END);
  if (old_size < 0) return false;
  const auto size = static_cast<off_t>(contents.size());
  const std::string growth(static_cast<std::size_t>(std::max(size - old_size, off_t{0})), '\n');
  if (write_all(file.get(), growth.data(), growth.size()) != growth.size() ||
      ::fsync(file.get()) != 0) {
    [[maybe_unused]] const int ignored = ::ftruncate(file.get(), old_size);
    return false;
  }
  contents.resize(static_cast<std::size_t>(std::max(size, old_size)), '\n');
  return ::lseek(file.get(), 0, SEEK_SET) == 0 &&
         write_all(file.get(), contents.data(), contents.size()) == contents.size() &&
         ::ftruncate(file.get(), size) == 0 && ::fsync(file.get()) == 0;
}

}  // namespace

bool replace_durably(const std::string& path, const std::string& contents) {
  struct stat old = {};
  if (::stat(path.c_str(), &old) != 0) return errno == ENOENT && write_in_place(path, contents);
  if (!S_ISREG(old.st_mode)) return false;  // a rename would replace a device, not write to it
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                             &std::free);
  const std::string target = resolved ? resolved.get() : "";
  const std::size_t name_begin = target.rfind('/') + 1;
  const Descriptor directory(
      ::open(target.substr(0, name_begin).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory && replace_by_new_file(directory.get(), target.substr(name_begin), contents)) {
    return ::fsync(directory.get()) == 0;
  }
  return write_in_place(path, contents);
}

bool is_new_version_name(const std::string& name, const std::string& file) {
  return name.size() == file.size() + 1 + kNameLetterCount &&
         name.compare(0, file.size() + 1, file + '.') == 0 &&
         name.find_first_not_of(kNameLetters, file.size() + 1) == std::string::npos;
}

}  // namespace utility
