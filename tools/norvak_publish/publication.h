// The steps that all publishing commands share.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "common/finding.h"
#include "common/terminal.h"
#include "draft.h"
#include "failure.h"
#include "release_tree.h"

namespace publish {

/// What the common options of the command line ask for.
struct PublishOptions {
  std::filesystem::path tree;
  bool dry_run = false;
  std::chrono::seconds wait{0};
  int keep = 5;
  bool quiet = false;
  bool in_place = false;
  bool import = false;
  tools::ColorMode color = tools::ColorMode::kAuto;
};

/// Prints a line for people to stdout, unless `--quiet` was given.
void say(const PublishOptions& options, const std::string& line);

/// Prints findings to stderr.
/// @return whether an error is among them
bool report(const PublishOptions& options, const std::vector<tools::Finding>& findings);

/// Opens and locks the tree of @a options, and removes what killed publishers left in it.
/// @throws Failure
[[nodiscard]] ReleaseTree open_locked(const PublishOptions& options);

/// Warnings for the files in which a release differs from its manifest.
/// @param published  the manifest
/// @param found  the result of scan_release for the release
[[nodiscard]] std::vector<tools::Finding> edited_in_place(const Manifest& published,
                                                          const Manifest& found);

/// The agent version that the version file below @a root names; empty if there is none.
[[nodiscard]] std::string published_version(const std::filesystem::path& root);

/// Publishes what @a fill puts into a draft, which starts as a copy of what the tree serves now.
/// The result is checked first: if an error is found, the tree stays as it was.
/// @throws Failure, UsageError
[[nodiscard]] ExitStatus publish_changes(const PublishOptions& options,
                                         const std::function<void(Draft&)>& fill);

}  // namespace publish
