#include <algorithm>
#include <thread>

#include "check.h"
#include "commands.h"
#include "files.h"
#include "progress.h"
#include "server_paths.h"
#include "version.h"

namespace publish {

namespace fs = std::filesystem;

namespace {

/// The part of a tree that one update type uses, and what a rollback means for its hosts.
struct UpdateType {
  const char* name;
  const char* directory;  ///< with a slash at both ends
  const char* consequence;
};

constexpr UpdateType kUpdateTypes[] = {
    {"agent software", server_paths::kAgent,
     "hosts do not follow: those that have the newer version keep it. Publish the old software "
     "again under a higher version to get it onto them"},
    {"kernel modules", server_paths::kKernels, "hosts follow with their next run"},
    {"web server", server_paths::kNginxBuilds, "hosts follow with their next run"},
    {"rules", server_paths::kRulesDirectory, "hosts follow with their next run"},
};

bool is_below(const std::string& path, const std::string& directory) {
  return path.compare(0, directory.size(), directory) == 0;
}

void say_who_follows(const PublishOptions& options, const std::vector<std::string>& changes) {
  for (const UpdateType& type : kUpdateTypes) {
    const bool changed = std::any_of(changes.begin(), changes.end(), [&](const std::string& path) {
      return is_below("/" + path, type.directory);
    });
    say(options, std::string("  ") + type.name + ": " + (changed ? type.consequence : "unchanged"));
  }
}

int find_target(const ReleaseTree& tree, const RollbackCommand& command) {
  const std::optional<int> pending = tree.linked(ReleaseTree::kRollingBack);
  const std::optional<int> before = tree.linked(ReleaseTree::kPrevious);
  const std::optional<int> target = command.release ? command.release : pending ? pending : before;
  if (!target || (target == tree.current() && !command.release && !pending)) {
    throw Failure("no earlier release is recorded: name one of those that `releases` lists");
  }
  if (!fs::exists(tree.manifest(*target))) {
    throw Failure("there is no release " + std::to_string(*target));
  }
  return *target;
}

/// Whether an unfinished rollback serves a grace release: see make_grace_release. It has no
/// manifest.
bool serves_grace_release(const ReleaseTree& tree, int current) {
  return tree.linked(ReleaseTree::kRollingBack) && !fs::exists(tree.manifest(current));
}

/// Whether hosts would see an older agent version in @a target than in @a current.
bool version_decreases(const fs::path& current, const fs::path& target) {
  const std::string from = published_version(current);
  const std::string to = published_version(target);
  return std::min(from.size(), to.size()) >= version::kPrefixBytes && version::is_newer(from, to);
}

/// Makes a release with the packages of @a current and everything else of @a target, to be served
/// during the grace time.
/// @return its number
int make_grace_release(ReleaseTree& tree, int current, int target) {
  link_tree(tree.release(target), tree.draft());
  for (const char* arch : {server_paths::kX64, server_paths::kX86}) {
    const std::string package = server_paths::agent_package(arch).substr(1);
    remove_tree(tree.draft() / package);
    if (!fs::exists(tree.release(current) / package)) continue;
    make_directories((tree.draft() / package).parent_path());
    link_or_copy(tree.release(current) / package, tree.draft() / package);
  }
  return tree.complete_draft(std::nullopt);
}

/// Switches to @a target. If the agent version decreases, the version file is switched first, and
/// the packages after the grace time: a host that just saw the newer version would otherwise
/// install the older package, record the newer version and never update again.
void switch_back(ReleaseTree& tree, int current, int target, std::chrono::seconds grace,
                 const PublishOptions& options) {
  const std::optional<int> pending = tree.linked(ReleaseTree::kRollingBack);
  const bool in_grace = serves_grace_release(tree, current);
  const bool decreases = version_decreases(tree.release(current), tree.release(target));
  if (!in_grace && !decreases) {
    tree.serve(target);
    return;
  }
  if (decreases) {
    tree.set_link(ReleaseTree::kRollingBack, target);
    const int number = make_grace_release(tree, current, target);
    if (in_grace) {
      tree.set_link(ReleaseTree::kCurrent, number);  // `previous` never names a grace release
    } else {
      tree.serve(number);
    }
  }
  if (decreases || pending == target) {
    const std::time_t begin = modification_time(tree.root() / ReleaseTree::kRollingBack);
    const std::chrono::seconds left(begin + grace.count() - std::time(nullptr));
    if (left.count() > 0) {
      say(options, "everything but the agent packages is switched; these follow in " +
                       std::to_string(left.count()) +
                       " seconds, when no host is still downloading the newer package (if "
                       "interrupted, run rollback again)");
      std::this_thread::sleep_for(left);
    }
  }
  tree.set_link(ReleaseTree::kCurrent, target);
}

}  // namespace

ExitStatus run_rollback(const PublishOptions& options, const RollbackCommand& command) {
  ReleaseTree tree = open_locked(options);
  const std::optional<int> current = tree.current();
  if (!current) throw Failure(tree.root().string() + " has no releases");
  const int target = find_target(tree, command);
  if (target == *current) {
    tree.remove_link(ReleaseTree::kRollingBack);
    tree.clean_up();
    say(options, "release " + std::to_string(target) + " is served already");
    return ExitStatus::kDone;
  }

  Manifest found;
  Manifest served;
  {
    const ProgressBar progress("Reading the releases", options.quiet);
    found = scan_release(tree.release(target), progress.callback());
    served = scan_release(tree.release(*current), progress.callback());
  }
  (void)report(options, edited_in_place(read_manifest(tree.manifest(target)), found));
  {
    const ProgressBar progress("Checking the release", options.quiet);
    // Without a previous version: only here may the version decrease.
    if (report(options, check_tree(tree.release(target), {"", {}, progress.callback()}))) {
      say(options, "not rolled back, because of the errors");
      return ExitStatus::kErrorsFound;
    }
  }
  const std::vector<std::string> changes = differences(served, found);
  if (options.dry_run) {
    say(options, "would go back to release " + std::to_string(target) + ":");
    say_who_follows(options, changes);
    return ExitStatus::kDone;
  }

  switch_back(tree, *current, target, command.grace, options);
  tree.remove_link(ReleaseTree::kRollingBack);
  tree.clean_up();  // removes the release of the grace time, which has no manifest
  say(options, "release " + std::to_string(target) + " is served again:");
  say_who_follows(options, changes);
  return ExitStatus::kDone;
}

}  // namespace publish
