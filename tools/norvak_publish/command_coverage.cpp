#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "common/command_line.h"
#include "coverage.h"
#include "coverage_page.h"
#include "files.h"
#include "fleet.h"
#include "release_tree.h"

namespace publish {

namespace {

/// The modules that are missing, by name.
std::vector<std::string> missing_modules(const KernelCoverage& kernel) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < kernel.has_module.size(); ++i) {
    if (!kernel.has_module[i]) names.emplace_back(agent_files::kModules[i]);
  }
  return names;
}

nlohmann::json to_json(const KernelCoverage& kernel) {
  nlohmann::json kernels = nlohmann::json::array();
  for (const FleetKernel& of_fleet : kernel.kernels) {
    kernels.push_back({{"distribution", of_fleet.distribution},
                       {"machine", of_fleet.machine},
                       {"release", of_fleet.release},
                       {"hosts", of_fleet.hosts}});
  }
  return {{"directory", kernel.directory},
          {"hosts", kernel.hosts},
          {"missing", missing_modules(kernel)},
          {"shared", kernel.is_shared()},
          {"kernels", kernels}};
}

nlohmann::json to_json(const Coverage& coverage) {
  nlohmann::json directories = nlohmann::json::array();
  for (const KernelCoverage& kernel : coverage.kernels) directories.push_back(to_json(kernel));
  return {{"hosts", coverage.hosts},
          {"uncovered_hosts", coverage.uncovered_hosts},
          {"directories", directories}};
}

std::string state(const KernelCoverage& kernel) {
  if (kernel.is_complete()) return "complete";
  if (!kernel.has_directory) return "missing";
  std::string names;
  for (const std::string& name : missing_modules(kernel)) names += " " + name;
  return "without" + names;
}

void print_text(const Coverage& coverage) {
  constexpr int kNumberWidth = 10;
  for (const KernelCoverage& kernel : coverage.kernels) {
    std::cout << std::setw(kNumberWidth) << kernel.hosts << "  " << kernel.directory << ": "
              << state(kernel) << "\n";
    if (!kernel.is_shared()) continue;
    for (const FleetKernel& of_fleet : kernel.kernels) {
      std::cout << std::setw(kNumberWidth) << ""
                << "    " << of_fleet.release << " (" << of_fleet.machine << "): " << of_fleet.hosts
                << "\n";
    }
  }
  std::cout << coverage.uncovered_hosts << " of " << coverage.hosts
            << " hosts have no complete set of modules\n";
}

}  // namespace

ExitStatus run_coverage(const PublishOptions& options, const CoverageCommand& command) {
  const Coverage found =
      coverage(ReleaseTree(options.tree).served().string(), read_fleet_file(command.fleet));
  if (!command.html.empty()) {
    write_coverage_page(found, command.html);
  } else if (command.json) {
    tools::print_json(std::cout, to_json(found));
  } else {
    print_text(found);
  }
  return ExitStatus::kDone;
}

}  // namespace publish
