#include "publication.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "check.h"
#include "files.h"
#include "progress.h"
#include "server_paths.h"
#include "version.h"

namespace publish {

namespace fs = std::filesystem;

namespace {

constexpr char kEditedInPlace[] = "edited-in-place";

/// Removes the draft unless it became a release.
class DraftRemover {
 public:
  explicit DraftRemover(fs::path draft) : draft_(std::move(draft)) {}
  DraftRemover(const DraftRemover&) = delete;
  DraftRemover& operator=(const DraftRemover&) = delete;
  ~DraftRemover() {
    std::error_code ignored;  // the next publisher tries again
    (void)fs::remove_all(draft_, ignored);
  }

 private:
  fs::path draft_;
};

void require_suitable(const ReleaseTree& tree, const PublishOptions& options) {
  const std::string root = tree.root().string();
  switch (tree.kind()) {
    case ReleaseTree::Kind::kEmpty:
      return;
    case ReleaseTree::Kind::kPlain:
      if (options.in_place || options.import) return;
      throw Failure(root +
                    " holds published files, but no releases: --import turns them into the first "
                    "release, --in-place changes them where they are");
    case ReleaseTree::Kind::kReleases:
      if (options.in_place || options.import) {
        throw Failure(root + " has releases already: leave --in-place and --import out");
      }
      if (tree.linked(ReleaseTree::kRollingBack)) {
        throw Failure("a rollback of " + root + " is not finished: run `norvak_publish rollback " +
                      root + "` again first");
      }
  }
}

/// Turns the plain files of the tree into its first release. They are not checked: hosts get them
/// now, and a rollback has to be able to return to them.
void import_plain_files(ReleaseTree& tree, const PublishOptions& options) {
  make_directory(tree.root() / kReleasesDirectory);
  link_tree(tree.root(), tree.draft());
  const ProgressBar progress("Reading the published files", options.quiet);
  tree.serve(tree.complete_draft(scan_release(tree.draft(), progress.callback())));
  say(options, "imported as release 1; now make " + (tree.root() / ReleaseTree::kCurrent).string() +
                   " the web server's document root, then remove the files outside of releases/");
}

/// The directory that the web server serves; nothing before the first release.
std::optional<fs::path> served_directory(const ReleaseTree& tree) {
  if (tree.kind() == ReleaseTree::Kind::kPlain) return tree.root();
  const std::optional<int> current = tree.current();
  return current ? std::optional<fs::path>(tree.release(*current)) : std::nullopt;
}

/// All directories that are or may have been served.
std::vector<fs::path> published_directories(const ReleaseTree& tree) {
  std::vector<fs::path> directories;
  if (tree.kind() == ReleaseTree::Kind::kPlain) directories.push_back(tree.root());
  for (const int number : tree.releases()) directories.push_back(tree.release(number));
  return directories;
}

void list_changes(const PublishOptions& options, const Draft& draft) {
  for (const std::string& path : draft.changes()) say(options, "  " + path);
}

/// Moves the changed files into the served directory one by one. Their order in the draft is one in
/// which hosts can use them.
void publish_in_place(const ReleaseTree& tree, const Draft& draft) {
  for (const std::string& path : draft.changes()) {
    const fs::path target = tree.root() / path;
    make_directories(target.parent_path());
    rename_path(draft.root() / path, target);
    flush_directory(target.parent_path());
  }
}

}  // namespace

void say(const PublishOptions& options, const std::string& line) {
  if (!options.quiet) std::cout << line << std::endl;
}

bool report(const PublishOptions& options, const std::vector<tools::Finding>& findings) {
  const tools::Painter paint(tools::use_color(options.color, STDERR_FILENO));
  for (const tools::Finding& finding : findings) tools::print_finding(std::cerr, paint, finding);
  return std::any_of(findings.begin(), findings.end(), [](const tools::Finding& finding) {
    return finding.severity == tools::Severity::kError;
  });
}

ReleaseTree open_locked(const PublishOptions& options) {
  ReleaseTree tree(options.tree);
  tree.lock(options.wait);
  return tree;
}

std::vector<tools::Finding> edited_in_place(const Manifest& published, const Manifest& found) {
  std::vector<tools::Finding> findings;
  for (const std::string& path : differences(published, found)) {
    findings.push_back({kEditedInPlace, tools::Severity::kWarning, path,
                        "This file is not the one that was published: somebody changed, added or "
                        "removed it in place, and other releases may share it.",
                        "Publish the right file with norvak_publish."});
  }
  return findings;
}

std::string published_version(const fs::path& root) {
  return version::read_version_file(root.string() + server_paths::kAgentVersion).value_or("");
}

ExitStatus publish_changes(const PublishOptions& options, const std::function<void(Draft&)>& fill) {
  if (options.in_place && options.import) {
    throw UsageError("--in-place and --import exclude each other");
  }
  ReleaseTree tree = open_locked(options);
  require_suitable(tree, options);
  const bool in_place = options.in_place;
  if (options.import && tree.kind() == ReleaseTree::Kind::kPlain && !options.dry_run) {
    import_plain_files(tree, options);
  }

  const std::optional<fs::path> served = served_directory(tree);
  Draft draft(in_place ? tree.root() / kInPlaceDraft : tree.draft(), published_directories(tree));
  const DraftRemover remover(draft.root());
  make_directories(draft.root());
  Manifest manifest;
  if (served) {
    link_tree(*served, draft.root());
    const ProgressBar progress("Reading the published files", options.quiet);
    manifest = scan_release(draft.root(), progress.callback());
  }
  const std::optional<int> current = tree.current();
  if (current && fs::exists(tree.manifest(*current))) {
    (void)report(options, edited_in_place(read_manifest(tree.manifest(*current)), manifest));
  }

  fill(draft);
  if (draft.changes().empty()) {
    say(options, "nothing to do: all of this is published already");
    return ExitStatus::kDone;
  }
  {
    const ProgressBar progress("Checking the result", options.quiet);
    CheckOptions check;
    check.progress = progress.callback();
    if (served) {
      check.previous_root = *served;
      check.previous_version = published_version(*served);
    }
    if (report(options, check_tree(draft.root(), check))) {
      say(options, "not published, because of the errors");
      return ExitStatus::kErrorsFound;
    }
  }
  if (options.dry_run) {
    say(options, "would publish:");
    list_changes(options, draft);
    return ExitStatus::kDone;
  }
  if (in_place) {
    publish_in_place(tree, draft);
    say(options, "published in place:");
    list_changes(options, draft);
    return ExitStatus::kDone;
  }

  std::vector<fs::path> changed;
  for (const std::string& path : draft.changes()) changed.push_back(draft.root() / path);
  const std::vector<std::string> digests = sha256(changed, {});
  for (std::size_t i = 0; i < digests.size(); ++i) manifest[draft.changes()[i]] = digests[i];
  const int number = tree.complete_draft(manifest);
  tree.serve(number);
  say(options, "published as release " + std::to_string(number) + ":");
  list_changes(options, draft);
  for (const int removed : tree.remove_old_releases(options.keep)) {
    say(options, "removed release " + std::to_string(removed));
  }
  return ExitStatus::kDone;
}

}  // namespace publish
