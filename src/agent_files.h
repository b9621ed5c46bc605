// The files of the agent that the updater reads and writes. Suffixes begin with "/" and follow the
// install directory unless a comment says otherwise.
#pragma once

#include <cstddef>
#include <string>

namespace agent_files {

inline constexpr char kConfig[] = "/config.xml";
inline constexpr char kLog[] = "/runlog/update.log";
inline constexpr char kPid[] = "/norvak.pid";
inline constexpr char kStartupScript[] = "/startup.sh";
inline constexpr char kTar[] = "/tool/tar";

/// Exists while a type 0 run installs.
inline constexpr char kUpdateMarker[] = "/update";

// Work directories, and what is downloaded into them.
inline constexpr char kSoftWorkDir[] = "/update_norvak_soft";
inline constexpr char kSoftDataDir[] = "/update_norvak_soft/data";
inline constexpr char kSoftPackage[] = "/update_norvak_soft/norvak_update_package.tar";
inline constexpr char kSoftVersionFile[] = "/update_norvak_soft/new_version";
inline constexpr char kKernelWorkDir[] = "/update_norvak_kernel";
inline constexpr char kKernelDigestList[] = "/update_norvak_kernel/md5";
inline constexpr char kKernelDownload[] = "/update_norvak_kernel/kernel";
inline constexpr char kNginxWorkDir[] = "/update_norvak_nginx";
inline constexpr char kNginxDownload[] = "/update_norvak_nginx/nginx";
inline constexpr char kNginxMd5Download[] = "/update_norvak_nginx/md5";
inline constexpr char kRuleWorkDir[] = "/update_norvak_rule";
inline constexpr char kRuleMd5Download[] = "/update_norvak_rule/rule_md5";
inline constexpr char kRuleDownload[] = "/update_norvak_rule/rule";

/// The work directories of all update types.
inline constexpr const char* kWorkDirs[] = {kSoftWorkDir, kKernelWorkDir, kNginxWorkDir,
                                            kRuleWorkDir};

/// The script that installs an agent package, below the unpacked package.
inline constexpr char kPackageScript[] = "/update";

inline constexpr char kKernelVersionRecord[] = "/runlog/kernel_version";
inline constexpr std::size_t kMaxRecordPathBytes = 127;

/// Path of the kernel version record, with a double slash; cut after kMaxRecordPathBytes.
inline std::string kernel_version_record(const std::string& install_path) {
  return (install_path + "/" + kKernelVersionRecord).substr(0, kMaxRecordPathBytes);
}

inline constexpr char kInstalledRules[] = "/template/norvak_default_rule.xml";
/// Its first line is the digest of the rules that the agent runs. The updater never writes it.
inline constexpr char kCurrentRulesDigest[] = "/template/system_rule.dat";

inline constexpr char kInstalledNginx[] = "/nginx/bin/nginx";
inline constexpr char kInstalledNginxMd5[] = "/nginx/md5";

// The agent's kernel modules. The last two, the engine modules, are installed together or not at
// all.
inline constexpr char kIpfilterModule[] = "norvak_ipfilter";
inline constexpr char kTesselModule[] = "tessel_linux";
inline constexpr char kQuorinModule[] = "quorin_linux";
/// All of them, in the order in which they are updated.
inline constexpr const char* kModules[] = {kIpfilterModule, kTesselModule, kQuorinModule};

/// File name extension of a kernel module, installed or on the update server.
inline constexpr char kModuleSuffix[] = ".ko";

/// Path of the installed kernel module @a name: modules lie directly in @a install_path.
inline std::string module_path(const std::string& install_path, const char* name) {
  return install_path + "/" + name + kModuleSuffix;
}

}  // namespace agent_files
