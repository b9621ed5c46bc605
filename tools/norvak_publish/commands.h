// The commands. Each returns the exit status, or throws Failure or UsageError.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "publication.h"

namespace publish {

struct SoftCommand {
  std::string version;
  std::filesystem::path package_x64;
  std::filesystem::path package_x86;
};
/// Publishes the agent software: both packages and the version file.
[[nodiscard]] ExitStatus run_soft(const PublishOptions& options, const SoftCommand& command);

struct KernelCommand {
  std::string distribution;                   ///< a family, such as "centos"
  std::optional<std::string> kernel_release;  ///< instead of what the modules say
  bool replace = false;                       ///< replace modules built for another kernel, too
  std::vector<std::filesystem::path> modules;
};
/// Publishes kernel modules, each in the directory that hosts with its kernel ask for.
[[nodiscard]] ExitStatus run_kernel(const PublishOptions& options, const KernelCommand& command);

/// Publishes the rule file @a rules.
[[nodiscard]] ExitStatus run_rules(const PublishOptions& options,
                                   const std::filesystem::path& rules);

struct NginxCommand {
  std::string version_dir;
  int word_size = 0;  ///< 64 or 32
  std::filesystem::path program;
  std::optional<std::string> identification;  ///< by default the program's MD5 digest
};
/// Publishes a build of the web server program.
[[nodiscard]] ExitStatus run_nginx(const PublishOptions& options, const NginxCommand& command);

struct PackageCommand {
  std::filesystem::path output;
  std::string version;
  std::filesystem::path payload;
  std::filesystem::path manifest;
  bool replace_config = false;
};
/// Builds an agent package.
[[nodiscard]] ExitStatus run_package(const PublishOptions& options, const PackageCommand& command);

/// Lists the releases of a tree and reports files that were edited in place.
[[nodiscard]] ExitStatus run_releases(const PublishOptions& options);

struct RollbackCommand {
  std::optional<int> release;  ///< by default the one that was served before
  std::chrono::seconds grace{0};
};
/// Serves an earlier release again.
[[nodiscard]] ExitStatus run_rollback(const PublishOptions& options,
                                      const RollbackCommand& command);

struct CheckCommand {
  std::string target;            ///< a tree or the address of a server
  std::string previous_version;  ///< the agent version published before; empty: unknown
  std::filesystem::path fleet;   ///< empty for none
  bool strict = false;           ///< warnings count as errors
  bool json = false;
};
/// Finds what would hurt hosts in a tree or on a server.
[[nodiscard]] ExitStatus run_check(const PublishOptions& options, const CheckCommand& command);

struct CoverageCommand {
  std::filesystem::path fleet;
  bool json = false;
  std::filesystem::path html;  ///< the page to write; empty for none
};
/// Reports which kernels of a fleet a tree has modules for.
[[nodiscard]] ExitStatus run_coverage(const PublishOptions& options,
                                      const CoverageCommand& command);

}  // namespace publish
