#include "release_tree.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <system_error>
#include <thread>

#include "failure.h"
#include "files.h"

namespace publish {

namespace fs = std::filesystem;

namespace {

constexpr char kDraft[] = "draft";
constexpr char kManifestSuffix[] = ".sha256";
constexpr std::size_t kMaxDigits = 9;  // of a release number
constexpr std::chrono::milliseconds kLockInterval(100);

/// The number of the release that is called @a name; nothing for other names.
std::optional<int> release_number(const std::string& name) {
  const bool digits =
      std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
  if (!digits || name.empty() || name.size() > kMaxDigits || name[0] == '0') return std::nullopt;
  return std::stoi(name);
}

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::vector<std::string> entries(const fs::path& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
    names.push_back(entry.path().filename());
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    throw Failure("cannot read " + directory.string() + ": " + error.message());
  }
  return names;
}

fs::path unfinished(const fs::path& manifest) { return manifest.string() + kTemporarySuffix; }

fs::path existing_directory(const fs::path& path) {
  std::error_code error;
  fs::path directory = fs::canonical(path, error);
  if (error || !fs::is_directory(directory)) {
    throw Failure("not a directory: " + path.string() + " (create it for a new server tree)");
  }
  return directory;
}

void remove_file(const fs::path& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) fail_with_errno("cannot remove", path);
}

}  // namespace

ReleaseTree::ReleaseTree(const fs::path& root) : root_(existing_directory(root)) {}

ReleaseTree::Kind ReleaseTree::kind() const {
  if (fs::is_symlink(root_ / kCurrent)) return Kind::kReleases;
  for (const std::string& name : entries(root_)) {
    if (name != kReleasesDirectory && name != kInPlaceDraft && !ends_with(name, kTemporarySuffix)) {
      return Kind::kPlain;
    }
  }
  return Kind::kEmpty;
}

void ReleaseTree::lock(std::chrono::seconds wait) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  lock_.emplace(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!*lock_) fail_with_errno("cannot open", root_);
  while (::flock(lock_->get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) fail_with_errno("cannot lock", root_);
    if (std::chrono::steady_clock::now() >= deadline) {
      throw Failure("another norvak_publish works on " + root_.string() +
                    " (--wait SECONDS waits for it)");
    }
    std::this_thread::sleep_for(kLockInterval);
  }
  clean_up();
}

std::vector<int> ReleaseTree::releases() const {
  std::vector<int> numbers;
  for (const std::string& name : entries(root_ / kReleasesDirectory)) {
    if (const std::optional<int> number = release_number(name)) numbers.push_back(*number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::optional<int> ReleaseTree::linked(const char* name) const {
  std::error_code error;
  const fs::path target = fs::read_symlink(root_ / name, error);
  if (error) return std::nullopt;
  const std::optional<int> number = release_number(target.filename());
  if (!number || !fs::is_directory(release(*number), error) ||
      !fs::equivalent(root_ / target, release(*number), error)) {
    throw Failure((root_ / name).string() + " does not name a release");
  }
  return number;
}

fs::path ReleaseTree::served() const {
  const std::optional<int> number = current();
  return number ? release(*number) : root_;
}

fs::path ReleaseTree::release(int number) const {
  return root_ / kReleasesDirectory / std::to_string(number);
}

fs::path ReleaseTree::manifest(int number) const {
  return release(number).string() + kManifestSuffix;
}

fs::path ReleaseTree::draft() const { return root_ / kReleasesDirectory / kDraft; }

int ReleaseTree::complete_draft(const std::optional<Manifest>& manifest_of_draft) {
  const std::vector<int> numbers = releases();
  const int number = numbers.empty() ? 1 : numbers.back() + 1;
  if (manifest_of_draft) {
    install_text(manifest_text(*manifest_of_draft), unfinished(manifest(number)),
                 std::time(nullptr));
  }
  rename_path(draft(), release(number));
  flush_file_system(root_);
  return number;
}

void ReleaseTree::serve(int number) {
  if (const std::optional<int> before = current()) set_link(kPrevious, *before);
  set_link(kCurrent, number);
  finish_manifest(number);
}

void ReleaseTree::set_link(const char* name, int number) {
  const fs::path target = fs::path(kReleasesDirectory) / std::to_string(number);
  const fs::path temporary = (root_ / name).string() + kTemporarySuffix;
  remove_file(temporary);
  if (::symlink(target.c_str(), temporary.c_str()) != 0)
    fail_with_errno("cannot create", temporary);
  rename_path(temporary, root_ / name);
  flush_directory(root_);
}

void ReleaseTree::remove_link(const char* name) { remove_file(root_ / name); }

std::vector<int> ReleaseTree::remove_old_releases(int keep) {
  const std::set<int> linked = linked_releases();
  std::vector<int> old = releases();
  const std::optional<int> served = current();
  old.erase(std::remove(old.begin(), old.end(), served.value_or(0)), old.end());
  std::vector<int> removed;
  for (const int number : old) {
    if (old.size() - removed.size() <= static_cast<std::size_t>(keep)) break;
    if (linked.count(number) != 0) continue;
    remove_file(manifest(number));  // first: without it the next publisher removes the rest
    remove_tree(release(number));
    removed.push_back(number);
  }
  return removed;
}

void ReleaseTree::clean_up() {
  remove_tree(root_ / kInPlaceDraft);
  for (const std::string& name : entries(root_)) {
    if (ends_with(name, kTemporarySuffix)) remove_file(root_ / name);
  }
  remove_tree(draft());
  if (const std::optional<int> served = current()) finish_manifest(*served);
  for (const std::string& name : entries(root_ / kReleasesDirectory)) {
    if (ends_with(name, kTemporarySuffix)) remove_file(root_ / kReleasesDirectory / name);
  }
  const std::set<int> linked = linked_releases();
  for (const int number : releases()) {
    if (linked.count(number) == 0 && !fs::exists(manifest(number))) remove_tree(release(number));
  }
}

void ReleaseTree::finish_manifest(int number) {
  const fs::path written = unfinished(manifest(number));
  if (fs::exists(written)) rename_path(written, manifest(number));
}

std::set<int> ReleaseTree::linked_releases() const {
  std::set<int> linked;
  for (const std::string& name : entries(root_)) {
    std::error_code error;
    if (!fs::is_symlink(root_ / name)) continue;
    const fs::path target = fs::canonical(root_ / name, error);
    if (error || target.parent_path() != root_ / kReleasesDirectory) continue;
    if (const std::optional<int> number = release_number(target.filename())) {
      linked.insert(*number);
    }
  }
  return linked;
}

}  // namespace publish
