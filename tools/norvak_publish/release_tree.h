// A server tree on disk: numbered releases, one of which the web server serves.
//
//     TREE/releases/3/            a complete release, never changed
//     TREE/releases/3.sha256      its manifest; written once the release was served
//     TREE/releases/draft/        a release that is being prepared
//     TREE/current                link to the release that is served: the document root
//     TREE/previous               link to the one that was served before
//     TREE/rolling-back           link to the target of a rollback that is not finished
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "manifest.h"
#include "utility/file.h"

namespace publish {

/// A server tree. Links that name releases are relative symbolic links at its top.
class ReleaseTree {
 public:
  enum class Kind {
    kEmpty,     ///< nothing is published yet
    kPlain,     ///< the directory itself is what the web server serves
    kReleases,  ///< with `current`
  };

  /// @throws Failure  @a root is not a directory that can be read
  explicit ReleaseTree(const std::filesystem::path& root);

  [[nodiscard]] Kind kind() const;
  [[nodiscard]] const std::filesystem::path& root() const { return root_; }

  /// Locks out other publishers as long as this object lives, and removes what killed ones left.
  /// @param wait  how long to wait for another publisher to end
  /// @throws Failure  another publisher did not end, or the tree cannot be written
  void lock(std::chrono::seconds wait);

  /// Numbers of the complete releases in ascending order.
  [[nodiscard]] std::vector<int> releases() const;

  /// The release that the link @a name points to; nothing if there is no such link.
  /// @throws Failure  the link leads elsewhere
  [[nodiscard]] std::optional<int> linked(const char* name) const;

  /// The release that is served; nothing before the first one.
  [[nodiscard]] std::optional<int> current() const { return linked(kCurrent); }

  /// The directory that the web server serves now: a release, or the root of a plain tree.
  [[nodiscard]] std::filesystem::path served() const;

  /// Paths of a release and of its manifest, which need not exist.
  [[nodiscard]] std::filesystem::path release(int number) const;
  [[nodiscard]] std::filesystem::path manifest(int number) const;

  // What follows requires the lock.

  /// The directory for a new release. It does not exist after lock().
  [[nodiscard]] std::filesystem::path draft() const;

  /// Turns the draft into a release that is not served yet, and waits until all of it is on disk.
  /// @param manifest  may be missing for a release that is not to be kept
  /// @return its number
  [[nodiscard]] int complete_draft(const std::optional<Manifest>& manifest);

  /// Serves the release @a number from now on. `previous` then names what was served before.
  void serve(int number);

  /// Points the link @a name to a release, atomically.
  void set_link(const char* name, int number);

  /// Removes the link @a name if it exists.
  void remove_link(const char* name);

  /// Removes the oldest releases until at most @a keep besides the current one are left. A release
  /// to which a symbolic link at the tree's top points is kept.
  /// @return what was removed
  std::vector<int> remove_old_releases(int keep);

  /// Removes what a killed publisher left, and releases without a manifest: they were never served
  /// or are not to be kept. A release to which a symbolic link at the tree's top points stays.
  void clean_up();

  static constexpr char kCurrent[] = "current";
  static constexpr char kPrevious[] = "previous";
  static constexpr char kRollingBack[] = "rolling-back";

 private:
  [[nodiscard]] std::set<int> linked_releases() const;
  void finish_manifest(int number);

  std::filesystem::path root_;
  std::optional<utility::Descriptor> lock_;
};

}  // namespace publish
