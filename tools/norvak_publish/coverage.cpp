#include "coverage.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>

#include "host_identity.h"
#include "server_paths.h"
#include "utility/file.h"

namespace publish {

namespace {

/// The directory of all modules for @a kernel, with a leading slash.
std::string kernel_directory(const FleetKernel& kernel) {
  const std::string directory = module_directory(kernel, agent_files::kModules[0]);
  return directory.substr(0, directory.rfind('/'));
}

void look_up(const std::string& root, KernelCoverage& coverage) {
  coverage.has_directory = utility::exists(root + "/" + coverage.directory);
  for (std::size_t i = 0; i < coverage.has_module.size(); ++i) {
    const char* const name = agent_files::kModules[i];
    const std::string directory = module_directory(coverage.kernels.front(), name);
    coverage.has_module[i] = utility::exists(root + server_paths::module_digest_list(directory)) &&
                             utility::exists(root + server_paths::module_file(directory, name));
  }
}

bool has_more_hosts(const FleetKernel& a, const FleetKernel& b) {
  return std::tie(b.hosts, a.release, a.machine) < std::tie(a.hosts, b.release, b.machine);
}

}  // namespace

std::string module_directory(const FleetKernel& kernel, const char* module) {
  host_identity::KernelInfo info;
  host_identity::describe_kernel(host_identity::os_code(kernel.distribution), kernel.release, info);
  return server_paths::module_directory(
      host_identity::kernel_distribution(kernel.distribution, info.flavour),
      host_identity::module_arch(kernel.machine), info.version, module);
}

bool KernelCoverage::is_complete() const {
  return std::all_of(has_module.begin(), has_module.end(), [](bool there) { return there; });
}

bool KernelCoverage::is_shared() const {
  return std::any_of(kernels.begin(), kernels.end(), [this](const FleetKernel& kernel) {
    return kernel.release != kernels.front().release;
  });
}

std::vector<KernelCoverage> group_by_directory(const std::vector<FleetKernel>& fleet) {
  std::vector<KernelCoverage> groups;
  std::unordered_map<std::string, std::size_t> places;
  for (const FleetKernel& kernel : fleet) {
    const std::string directory = kernel_directory(kernel);
    const auto [place, is_new] = places.try_emplace(directory, groups.size());
    if (is_new) groups.emplace_back().directory = directory.substr(1);
    KernelCoverage& group = groups[place->second];
    group.hosts += kernel.hosts;
    group.kernels.push_back(kernel);
  }
  for (KernelCoverage& group : groups) {
    std::sort(group.kernels.begin(), group.kernels.end(), has_more_hosts);
  }
  std::sort(groups.begin(), groups.end(), [](const KernelCoverage& a, const KernelCoverage& b) {
    return std::tie(b.hosts, a.directory) < std::tie(a.hosts, b.directory);
  });
  return groups;
}

Coverage coverage(const std::string& root, const std::vector<FleetKernel>& fleet) {
  Coverage result;
  result.kernels = group_by_directory(fleet);
  for (KernelCoverage& kernel : result.kernels) {
    look_up(root, kernel);
    result.hosts += kernel.hosts;
    if (!kernel.is_complete()) result.uncovered_hosts += kernel.hosts;
  }
  std::stable_partition(result.kernels.begin(), result.kernels.end(),
                        [](const KernelCoverage& kernel) { return !kernel.is_complete(); });
  return result;
}

}  // namespace publish
