// Which kernels of a fleet a server tree has modules for.
#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include "agent_files.h"
#include "fleet.h"

namespace publish {

/// A directory of kernel modules, and the hosts that request it.
struct KernelCoverage {
  std::string directory;  ///< below the tree's root, such as "kernels/centos-xen/x64/2.6.18-164"
  std::uint64_t hosts = 0;
  bool has_directory = false;
  /// For each of agent_files::kModules: whether the module and its digest list exist.
  std::array<bool, std::size(agent_files::kModules)> has_module = {};
  std::vector<FleetKernel> kernels;  ///< those of the fleet; the most hosts first

  /// Whether all modules exist.
  [[nodiscard]] bool is_complete() const;

  /// Whether hosts with different kernels install the same modules.
  [[nodiscard]] bool is_shared() const;
};

struct Coverage {
  std::uint64_t hosts = 0;            ///< in the fleet
  std::uint64_t uncovered_hosts = 0;  ///< that request an incomplete directory
  /// Worst first: incomplete before complete, then the most hosts first.
  std::vector<KernelCoverage> kernels;
};

/// Where hosts with @a kernel request the module @a module; begins with "/".
[[nodiscard]] std::string module_directory(const FleetKernel& kernel, const char* module);

/// The directories that the hosts of @a fleet request, the most hosts first. Which modules exist
/// there is not looked up.
[[nodiscard]] std::vector<KernelCoverage> group_by_directory(const std::vector<FleetKernel>& fleet);

/// Determines for which kernels of @a fleet the tree has modules.
/// @param root  a plain tree
[[nodiscard]] Coverage coverage(const std::string& root, const std::vector<FleetKernel>& fleet);

}  // namespace publish
