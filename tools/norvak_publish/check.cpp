#include "check.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <tuple>

#include "check_areas.h"
#include "coverage.h"
#include "failure.h"
#include "fleet.h"
#include "manifest.h"
#include "server_paths.h"

namespace publish {

namespace {

/// The paths that hosts request regardless of their kernel, and all directories above these.
std::set<std::string> fixed_paths() {
  std::set<std::string> paths;
  for (const std::string& file :
       {std::string(server_paths::kAgentVersion), server_paths::agent_package(server_paths::kX64),
        server_paths::agent_package(server_paths::kX86), std::string(server_paths::kRules),
        std::string(server_paths::kRulesDigestList)}) {
    for (std::size_t end = file.find('/', 1); end != std::string::npos;
         end = file.find('/', end + 1)) {
      (void)paths.insert(file.substr(0, end));
    }
    (void)paths.insert(file);
  }
  return paths;
}

/// Looks for names that no host requests, in the directories whose contents are known beforehand.
void find_unrequested(const TreeReader& tree, const std::string& directory,
                      const std::set<std::string>& requested, Findings& findings) {
  for (const std::string& name : tree.list(directory, findings)) {
    const std::string path = TreeReader::join(directory, name);
    if (path == TreeReader::without_slash(server_paths::kKernels) ||
        path == TreeReader::without_slash(server_paths::kNginxBuilds) ||
        (directory.empty() && name == kReleasesDirectory)) {
      continue;
    }
    if (requested.count(path) == 0) {
      TreeReader::add_unrequested(path, findings);
    } else if (std::filesystem::is_directory(tree.on_disk(path))) {
      find_unrequested(tree, path, requested, findings);
    }
  }
}

/// Adds a finding for each kernel of the fleet that the tree has no directory for. Files that are
/// missing in an existing directory are found by the check of that directory.
void check_fleet(const TreeReader& tree, const std::filesystem::path& fleet, Findings& findings) {
  for (const KernelCoverage& kernel : coverage(tree.on_disk(""), read_fleet_file(fleet)).kernels) {
    if (kernel.has_directory) continue;
    findings.push_back(make_finding(
        findings::kKernelMissing, kernel.directory,
        "Hosts of the fleet request this directory, which is missing. Their modules are not "
        "updated, and each run fails. Hosts: " +
            std::to_string(kernel.hosts) + ".",
        "Publish modules for this kernel: norvak_publish kernel."));
  }
}

bool comes_before(const tools::Finding& a, const tools::Finding& b) {
  return std::tie(a.file, a.code, a.text) < std::tie(b.file, b.code, b.text);
}

}  // namespace

Findings check_tree(const std::filesystem::path& root, const CheckOptions& options) {
  if (!std::filesystem::is_directory(root)) throw Failure("not a directory: " + root.string());
  const TreeReader tree(root.string());
  Findings findings;
  std::vector<CheckTask> tasks;
  // The largest files first, so that all processors are busy to the end.
  add_agent_tasks(tree, options, tasks);
  add_rules_tasks(tree, tasks);
  add_nginx_tasks(tree, tasks, findings);
  add_kernel_tasks(tree, tasks, findings);
  find_unrequested(tree, "", fixed_paths(), findings);
  if (!options.fleet.empty()) check_fleet(tree, options.fleet, findings);

  std::vector<Findings> found(tasks.size());
  in_parallel(
      tasks.size(), [&](std::size_t i) { tasks[i](found[i]); }, options.progress);
  for (Findings& part : found) {
    std::move(part.begin(), part.end(), std::back_inserter(findings));
  }
  std::sort(findings.begin(), findings.end(), comes_before);
  return findings;
}

}  // namespace publish
