// Where the update server keeps its files. All paths begin with "/" and follow the server's base
// address, or the root of its document tree, with nothing in between.
#pragma once

#include <string>

namespace server_paths {

// Directories by processor family.
inline constexpr char kX64[] = "x64";
inline constexpr char kX86[] = "x86";

inline constexpr char kAgent[] = "/norvak/";
inline constexpr char kAgentVersion[] = "/norvak/norvak_agent_new_version.txt";

/// @param arch  kX64 or kX86
[[nodiscard]] std::string agent_package(const std::string& arch);

inline constexpr char kKernels[] = "/kernels/";

/// The directory that holds one build of one kernel module.
///
/// @param distribution  directory of the distribution, with its flavour, such as "centos-xen"
/// @param arch  kX64 or kX86
/// @param kernel_version  such as "2.6.18-164"
/// @param module  name without extension
[[nodiscard]] std::string module_directory(const std::string& distribution, const std::string& arch,
                                           const std::string& kernel_version,
                                           const std::string& module);

/// The digest list of the module in @a directory, a result of module_directory.
[[nodiscard]] std::string module_digest_list(const std::string& directory);

/// The kernel module @a module itself.
[[nodiscard]] std::string module_file(const std::string& directory, const std::string& module);

inline constexpr char kRulesDirectory[] = "/tarn_rule/";
inline constexpr char kRulesDigestList[] = "/tarn_rule/md5";
inline constexpr char kRules[] = "/tarn_rule/norvak_default_rule.xml";

inline constexpr char kNginxBuilds[] = "/nginx_new/";

/// The directory of one build of the web server program.
/// @param version_dir  inserted as it is, without escaping
[[nodiscard]] std::string nginx_directory(const std::string& arch, const std::string& version_dir);

/// The line that identifies the build in @a directory, a result of nginx_directory.
[[nodiscard]] std::string nginx_identification(const std::string& directory);

/// The program of the build in @a directory.
[[nodiscard]] std::string nginx_program(const std::string& directory);

}  // namespace server_paths
