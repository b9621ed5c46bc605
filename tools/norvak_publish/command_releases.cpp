#include <array>
#include <ctime>
#include <iostream>

#include "commands.h"
#include "files.h"
#include "progress.h"

namespace publish {

namespace fs = std::filesystem;

namespace {

std::string local_time(std::time_t time) {
  struct tm parts = {};
  std::array<char, sizeof("2000-01-01 00:00:00")> text{};
  if (::localtime_r(&time, &parts) == nullptr ||
      std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts) == 0) {
    return "-";
  }
  return text.data();
}

std::string padded(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

}  // namespace

ExitStatus run_releases(const PublishOptions& options) {
  const ReleaseTree tree(options.tree);
  const std::optional<int> current = tree.current();
  const std::optional<int> previous = tree.linked(ReleaseTree::kPrevious);
  bool edited = false;
  std::cout << "RELEASE  PUBLISHED            AGENT VERSION     FILES  STATE\n";
  for (const int number : tree.releases()) {
    if (!fs::exists(tree.manifest(number))) continue;  // not published yet, or about to be removed
    Manifest found;
    {
      const ProgressBar progress("Reading release " + std::to_string(number), options.quiet);
      found = scan_release(tree.release(number), progress.callback());
    }
    std::vector<tools::Finding> findings =
        edited_in_place(read_manifest(tree.manifest(number)), found);
    std::string state;
    if (number == current) state += " current";
    if (number == previous) state += " previous";
    if (!findings.empty()) state += " edited";
    const std::string version = published_version(tree.release(number));
    std::cout << padded(std::to_string(number), 9)
              << padded(local_time(modification_time(tree.manifest(number))), 21)
              << padded(version.empty() ? "-" : tools::printable(version), 18)
              << padded(std::to_string(found.size()), state.empty() ? 0 : 6) << state << std::endl;
    for (tools::Finding& finding : findings) {
      finding.file = (tree.release(number) / finding.file).string();
    }
    (void)report(options, findings);
    edited = edited || !findings.empty();
  }
  return edited ? ExitStatus::kErrorsFound : ExitStatus::kDone;
}

}  // namespace publish
