#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include "failure.h"
#include "manifest.h"
#include "sha256.h"

namespace publish {

namespace fs = std::filesystem;

namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0444;
constexpr mode_t kPermissionBits = 07777;
constexpr std::size_t kBlockBytes = std::size_t{128} * 1024;

utility::Descriptor create_temporary(const fs::path& path) {
  (void)::unlink(path.c_str());  // what a killed run left
  utility::Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) fail_with_errno("cannot create", path);
  return file;
}

/// @param changed  modification time of the copy, which gets the mode of published files; without
///                 it, the copy has the modification time and the mode of the source
void copy_contents(const fs::path& source, const fs::path& target,
                   std::optional<std::time_t> changed) {
  const utility::Descriptor in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status = {};
  if (!in || ::fstat(in.get(), &status) != 0) fail_with_errno("cannot read", source);
  NewFile out(target);
  std::vector<char> block(kBlockBytes);
  for (;;) {
    const ssize_t size = utility::read_some(in.get(), block.data(), block.size());
    if (size < 0) fail_with_errno("cannot read", source);
    if (size == 0) break;
    out.write(block.data(), static_cast<std::size_t>(size));
  }
  out.set_time(changed ? timespec{*changed, 0} : status.st_mtim);
  out.commit(changed ? kFileMode : status.st_mode & kPermissionBits);
}

}  // namespace

NewFile::NewFile(fs::path target)
    : target_(std::move(target)),
      temporary_(target_.string() + kTemporarySuffix),
      file_(create_temporary(temporary_)) {}

NewFile::~NewFile() {
  if (!committed_) (void)::unlink(temporary_.c_str());
}

void NewFile::write(const char* data, std::size_t size) {
  if (utility::write_all(file_.get(), data, size) != size) {
    fail_with_errno("cannot write", temporary_);
  }
}

void NewFile::set_time(const struct timespec& changed) {
  const std::array<struct timespec, 2> times = {changed, changed};
  if (::futimens(file_.get(), times.data()) != 0) fail_with_errno("cannot change", temporary_);
}

void NewFile::commit(mode_t mode) {
  if (::fchmod(file_.get(), mode) != 0 || ::fsync(file_.get()) != 0) {
    fail_with_errno("cannot write", temporary_);
  }
  rename_path(temporary_, target_);
  committed_ = true;
}

void make_directory(const fs::path& path) {
  if (::mkdir(path.c_str(), kDirectoryMode) == 0) {
    if (::chmod(path.c_str(), kDirectoryMode) != 0) fail_with_errno("cannot change", path);
  } else if (errno != EEXIST || !fs::is_directory(path)) {
    fail_with_errno("cannot create", path);
  }
}

void make_directories(const fs::path& path) {
  if (!fs::is_directory(path.parent_path())) make_directories(path.parent_path());
  make_directory(path);
}

void install_copy(const fs::path& source, const fs::path& target, std::time_t changed) {
  copy_contents(source, target, changed);
}

void install_text(const std::string& text, const fs::path& target, std::time_t changed) {
  NewFile out(target);
  out.write(text.data(), text.size());
  out.set_time({changed, 0});
  out.commit(kFileMode);
}

std::time_t modification_time(const fs::path& path) {
  struct stat status = {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_mtim.tv_sec : 0;
}

bool holds_text(const fs::path& path, const std::string& text) {
  std::error_code error;
  if (!fs::is_regular_file(path) || fs::file_size(path, error) != text.size()) return false;
  std::ifstream file(path);
  std::ostringstream found;
  found << file.rdbuf();
  return found.str() == text;
}

bool holds_copy(const fs::path& path, const fs::path& source) {
  std::error_code error;
  if (!fs::is_regular_file(path) || fs::file_size(path, error) != fs::file_size(source, error)) {
    return false;
  }
  const std::vector<std::string> digests = sha256({path, source}, {});
  return digests[0] == digests[1];
}

void link_or_copy(const fs::path& from, const fs::path& to) {
  if (::link(from.c_str(), to.c_str()) == 0) return;
  if (errno != EXDEV && errno != EPERM && errno != EMLINK) fail_with_errno("cannot create", to);
  copy_contents(from, to, std::nullopt);
}

void link_tree(const fs::path& from, const fs::path& to) {
  make_directory(to);
  for (const std::string& file : list_files(from)) {
    make_directories((to / file).parent_path());
    link_or_copy(from / file, to / file);
  }
}

void remove_tree(const fs::path& path) {
  std::error_code error;
  (void)fs::remove_all(path, error);
  if (error) throw Failure("cannot remove " + path.string() + ": " + error.message());
}

void rename_path(const fs::path& from, const fs::path& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) fail_with_errno("cannot replace", to);
}

void flush_directory(const fs::path& path) {
  const utility::Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || ::fsync(directory.get()) != 0) fail_with_errno("cannot flush", path);
}

void flush_file_system(const fs::path& path) {
  const utility::Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || ::syncfs(directory.get()) != 0) fail_with_errno("cannot flush", path);
}

}  // namespace publish
