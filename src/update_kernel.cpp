#include "update_kernel.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "agent_files.h"
#include "help.h"
#include "host_identity.h"
#include "log.h"
#include "log_messages.h"
#include "published_digest.h"
#include "server_paths.h"
#include "url_op.h"
#include "utility/file.h"
#include "utility/unix_helper.h"
#include "xml/config.h"

namespace {

using published_digest::ModuleState;

// What build_url_string builds; any other value means the module.
constexpr int kDigestListUrl = 0;
constexpr int kModuleUrl = 1;

}  // namespace

/// What identifies the host to the update server, and the server's address.
struct CUpdateKernelImpl::Host {
  std::string server;
  std::string os_type;
  KernelInfo kernel;
  std::string arch;
};

int CUpdateKernelImpl::init() {
  install_path = utility::CUnixHelper::get_norvak_path();
  md5_path = install_path + agent_files::kKernelDigestList;
  kernel_path = install_path + agent_files::kKernelDownload;
  config_path = install_path + agent_files::kConfig;
  utility::make_work_dir(install_path + agent_files::kKernelWorkDir);
  return 0;
}

void CUpdateKernelImpl::release() {
  (void)CHelper::remove_file(install_path + agent_files::kKernelWorkDir);
}

std::string CUpdateKernelImpl::get_os_type() { return host_identity::distribution(install_path); }

std::string CUpdateKernelImpl::get_local_os_arch() {
  struct utsname host = {};
  if (::uname(&host) != 0) return "";
  return host_identity::module_arch(host.machine);
}

void CUpdateKernelImpl::get_local_kernel_version(int os_code, KernelInfo& info) {
  struct utsname host = {};
  if (::uname(&host) != 0) return;
  host_identity::describe_kernel(os_code, host.release, info);
}

std::string CUpdateKernelImpl::get_url_from_xml() {
  return config::get_config_var(config_path, config::kKernelUpdateHost);
}

std::string CUpdateKernelImpl::build_url_string(int url_kind, const std::string& host,
                                                const std::string& os_type, const std::string& arch,
                                                const KernelInfo& info, const std::string& name) {
  const std::string directory = server_paths::module_directory(
      host_identity::kernel_distribution(os_type, info.flavour), arch, info.version, name);
  return host + (url_kind == kDigestListUrl ? server_paths::module_digest_list(directory)
                                            : server_paths::module_file(directory, name));
}

std::string CUpdateKernelImpl::get_kernel_full_path(const char* name) {
  return agent_files::module_path(install_path, name);
}

bool CUpdateKernelImpl::check_download_kernel_md5() {
  return published_digest::verify_module(md5_path, kernel_path);
}

int CUpdateKernelImpl::check_update_kernel(const char* name) {
  Host host;
  if (!identify(host)) return kNothingToDo;
  record_kernel_version(host.kernel.version);

  const std::string url =
      build_url_string(kDigestListUrl, host.server, host.os_type, host.arch, host.kernel, name);
  if (CUrlOp::url_down_file(url.c_str(), md5_path.c_str()) != 0) {
    CUpdateLog::write_log(log_messages::kKernelListDownloadFailed, name);
    return -1;
  }
  switch (published_digest::compare_module(md5_path, get_kernel_full_path(name))) {
    case ModuleState::kUnreadable:
      CUpdateLog::write_log(log_messages::kKernelListUnreadable);
      return -1;
    case ModuleState::kAbnormal:
      CUpdateLog::write_log(log_messages::kKernelListAbnormal);
      return -1;
    case ModuleState::kDiffers:
      return kMustDownload;
    case ModuleState::kCurrent:
      break;
  }
  return kNothingToDo;
}

int CUpdateKernelImpl::download_kernel(const char* name) {
  Host host;
  if (!identify(host)) return kNothingToDo;

  const std::string url =
      build_url_string(kModuleUrl, host.server, host.os_type, host.arch, host.kernel, name);
  if (CUrlOp::url_down_file(url.c_str(), kernel_path.c_str()) != 0) {
    CUpdateLog::write_log(log_messages::kKernelModuleDownloadFailed, name);
    return -1;
  }
  if (!check_download_kernel_md5()) {
    CUpdateLog::write_log(log_messages::kKernelModuleRefused, name);
    return -1;
  }
  CUpdateLog::write_log(log_messages::kKernelModuleVerified, name);
  (void)CHelper::rename_file(kernel_path, get_kernel_full_path(name));
  return 0;
}

void CUpdateKernelImpl::clear_tarn_kernel() {
  const std::string tessel = get_kernel_full_path(agent_files::kTesselModule);
  const std::string quorin = get_kernel_full_path(agent_files::kQuorinModule);
  if (utility::exists(tessel) && utility::exists(quorin)) return;
  (void)::unlink(tessel.c_str());
  (void)::unlink(quorin.c_str());
}

bool CUpdateKernelImpl::identify(Host& host) {
  host.server = get_url_from_xml();
  host.os_type = get_os_type();
  get_local_kernel_version(host_identity::os_code(host.os_type), host.kernel);
  host.arch = get_local_os_arch();
  return !host.server.empty() && !host.os_type.empty() && !host.kernel.version.empty() &&
         !host.arch.empty();
}

void CUpdateKernelImpl::record_kernel_version(const std::string& version) {
  const std::string path = agent_files::kernel_version_record(install_path);
  if (utility::exists(path)) (void)::unlink(path.c_str());
  const utility::Descriptor record(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, utility::kNewFileMode));
  if (record) (void)utility::write_all(record.get(), version.data(), version.size());
}
