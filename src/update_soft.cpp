#include "update_soft.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

#include "agent_files.h"
#include "help.h"
#include "host_identity.h"
#include "log.h"
#include "log_messages.h"
#include "server_paths.h"
#include "url_op.h"
#include "utility/cstr.h"
#include "utility/file.h"
#include "utility/unix_helper.h"
#include "version.h"
#include "xml/config.h"
#include "xml/xml_document.h"

namespace {

constexpr char kDiscardOutput[] = " > /dev/null";
constexpr mode_t kScriptMode = 0544;

/// update_config stops at its second change, of either setting.
constexpr int kMaxSettingChanges = 2;

/// Runs a command line through the shell.
/// @return 0; -1 if it could not be started, was ended by a signal or exited nonzero
int run_command(const std::string& command) {
  const int status = std::system(command.c_str());
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

/// A file that exists during the installation. Nothing in this program reads it; if it cannot be
/// created, the update continues without it.
class UpdateMarker {
 public:
  explicit UpdateMarker(const std::string& install_path)
      : path_(install_path + agent_files::kUpdateMarker) {
    const utility::Descriptor file(
        ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, utility::kNewFileMode));
  }
  UpdateMarker(const UpdateMarker&) = delete;
  UpdateMarker& operator=(const UpdateMarker&) = delete;
  ~UpdateMarker() { (void)std::remove(path_.c_str()); }

 private:
  std::string path_;
};

}  // namespace

int CUpdateSoftImpl::init() {
  install_path = utility::CUnixHelper::get_norvak_path();
  work_dir = install_path + agent_files::kSoftWorkDir;
  data_dir = install_path + agent_files::kSoftDataDir;
  package_path = install_path + agent_files::kSoftPackage;
  version_file_path = install_path + agent_files::kSoftVersionFile;
  config_path = install_path + agent_files::kConfig;
  utility::make_work_dir(work_dir);
  utility::make_work_dir(data_dir);
  return 0;
}

void CUpdateSoftImpl::release() { (void)CHelper::remove_file(work_dir); }

std::string CUpdateSoftImpl::get_download_url() {
  return config::get_config_var(config_path, config::kUpdateHost);
}

int CUpdateSoftImpl::get_update_method(int& update_type) {
  std::string text = std::to_string(update_type);  // kept if the setting is missing
  if (config::get_config_var(config_path, config::kUpdateType, text) != 0) {
    CUpdateLog::write_log(log_messages::kSoftMethodUnreadable, config_path.c_str());
    return -1;
  }
  update_type = utility::CStr::to_int(text.c_str());
  return 0;
}

std::string CUpdateSoftImpl::get_norvak_old_version() {
  return config::get_config_var(config_path, config::kVersion);
}

int CUpdateSoftImpl::download_norvak_version_file() {
  std::string url = get_download_url();
  if (url.empty()) return -1;
  url += server_paths::kAgentVersion;
  if (CUrlOp::url_down_file(url.c_str(), version_file_path.c_str()) != 0) {
    CUpdateLog::write_log(log_messages::kSoftVersionDownloadFailed, url.c_str(),
                          version_file_path.c_str());
    return -1;
  }
  return version::is_version_file(version_file_path) ? 0 : -1;
}

std::string CUpdateSoftImpl::get_norvak_new_version() {
  if (!new_version.empty()) return new_version;
  new_version = version::read_version_file(version_file_path).value_or("");
  return new_version;
}

void CUpdateSoftImpl::parse_version(const std::string& version, const std::string& separators,
                                    string_list& parts) {
  version::split(version, separators, parts);
}

bool CUpdateSoftImpl::check_norvak_new_version_exist(std::string& installed, std::string& offered) {
  if (download_norvak_version_file() != 0) {
    CUpdateLog::write_log(log_messages::kSoftVersionUnknown);
    return false;
  }
  offered = get_norvak_new_version();
  installed = get_norvak_old_version();
  return version::is_newer(offered, installed);
}

int CUpdateSoftImpl::run_update_norvak_agent() {
  std::optional<UpdateMarker> marker(std::in_place, install_path);
  if (download_norvak_update_package() != 0) {
    CUpdateLog::write_log(log_messages::kSoftPackageDownloadFailed);
    return -1;
  }
  (void)CHelper::stop_norvak_agent();
  const int result = install_package();
  marker.reset();  // removed before the agent starts
  (void)CHelper::start_norvak_agent();
  return result;
}

int CUpdateSoftImpl::install_package() {
  if (update_now() != 0) {
    CUpdateLog::write_log(log_messages::kSoftInstallFailed);
    return -1;
  }
  if (update_config() != 0) {
    CUpdateLog::write_log(log_messages::kSoftCarryOverFailed);
    return -1;
  }
  return 0;
}

int CUpdateSoftImpl::download_norvak_update_package() {
  std::string url = get_download_url();
  if (url.empty()) return -1;
  struct utsname host = {};
  (void)::uname(&host);  // a failure leaves the machine name empty
  url += server_paths::agent_package(host_identity::package_arch(host.machine));
  return CUrlOp::url_down_file(url.c_str(), package_path.c_str());
}

int CUpdateSoftImpl::update_now() {
  if (config::get_config_var(config_path, config::kUpdateType, saved_update_type) != 0) return -1;
  if (decompress_package() != 0) {
    CUpdateLog::write_log(log_messages::kSoftUnpackFailed);
    return -1;
  }
  if (exec_script() != 0) {
    CUpdateLog::write_log(log_messages::kSoftScriptFailed);
    return -1;
  }
  return 0;
}

int CUpdateSoftImpl::decompress_package() {
  return run_command(install_path + agent_files::kTar + " xvf " + package_path + " -C " + data_dir +
                     kDiscardOutput);
}

int CUpdateSoftImpl::exec_script() {
  [[maybe_unused]] const int ignored = ::chdir(data_dir.c_str());
  (void)::chmod((data_dir + agent_files::kPackageScript).c_str(), kScriptMode);
  return run_command(std::string(".") + agent_files::kPackageScript + kDiscardOutput);
}

int CUpdateSoftImpl::update_config() {
  const std::unique_ptr<XmlDocument> document = newXmlDocument();
  if (document->load(config_path.c_str()) == 0) return -1;
  const XmlNodeList settings = document->root().select_nodes(config::kSettings);
  int changes = 0;
  for (int i = 0; i < settings.length() && changes < kMaxSettingChanges; ++i) {
    XmlNode setting = settings.item(i);
    const std::string name = setting.get_attribute(config::kName);
    std::string value;
    if (name == config::kVersion) {
      value = get_norvak_new_version();
    } else if (name == config::kUpdateType) {
      value = saved_update_type;
    } else {
      continue;
    }
    setting.set_attribute(config::kValue, value.c_str());
    (void)document->save(config_path.c_str());  // saved after each change
    ++changes;
  }
  return 0;
}
