// The names in the agent's install directory and on the update server that more than one source
// file uses. A name that only one file uses stands in that file.
#pragma once

#include <string>

namespace agent_files {

inline constexpr char kConfig[] = "/config.xml";

// The agent's kernel modules, in the order in which they are updated.
inline constexpr char kIpfilterModule[] = "norvak_ipfilter";
inline constexpr char kTesselModule[] = "tessel_linux";
inline constexpr char kQuorinModule[] = "quorin_linux";

// Directories of the update server, by processor family.
inline constexpr char kX64[] = "x64";
inline constexpr char kX86[] = "x86";

/// Name of the file that identifies a build, on the update server and here.
inline constexpr char kMd5[] = "/md5";

/// File name ending of a kernel module, installed or on the update server.
inline constexpr char kModuleSuffix[] = ".ko";

/// Path of the installed kernel module @a name: modules lie directly in @a install_path.
inline std::string module_path(const std::string& install_path, const char* name) {
  return install_path + "/" + name + kModuleSuffix;
}

}  // namespace agent_files
