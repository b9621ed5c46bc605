#include "update_soft.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

#include "agent_files.h"
#include "help.h"
#include "log.h"
#include "log_messages.h"
#include "url_op.h"
#include "utility/cstr.h"
#include "utility/file.h"
#include "utility/unix_helper.h"
#include "xml/config.h"
#include "xml/xml_document.h"

namespace {

// Below the install directory.
constexpr char kWorkDir[] = "/update_norvak_soft";
constexpr char kTar[] = "/tool/tar";
constexpr char kMarker[] = "/update";
// Below the work directory.
constexpr char kDataDir[] = "/data";
constexpr char kPackage[] = "/norvak_update_package.tar";
constexpr char kVersionFile[] = "/new_version";
// Below the unpacked package.
constexpr char kScript[] = "/update";
// Below the update server's address.
constexpr char kServerVersion[] = "/norvak/norvak_agent_new_version.txt";
constexpr char kServerPackage64[] = "/norvak/x64/nvupdate.tar";
constexpr char kServerPackage32[] = "/norvak/x86/nvupdate.tar";

constexpr char kMachine64[] = "x86_64";
constexpr char kDiscardOutput[] = " > /dev/null";

constexpr mode_t kMarkerMode = 0666;  // less the umask
constexpr mode_t kScriptMode = 0544;
constexpr int kLineLimit = 1024;
constexpr int kVersionLimit = 64;
constexpr std::size_t kVersionPrefix = 6;
constexpr char kFieldSeparator[] = ".";
constexpr int kMostChanges = 2;

/// Runs a command line through the shell.
/// @return 0; -1 when it could not be started, was ended by a signal or exited nonzero
int run_command(const std::string& command) {
  const int status = std::system(command.c_str());
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

/// A file that exists while an update is going on. Nothing in this program reads it, and where it
/// cannot be created the update goes on without it.
class UpdateMarker {
 public:
  explicit UpdateMarker(const std::string& agent) : path_(agent + kMarker) {
    const utility::Descriptor file(
        ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kMarkerMode));
  }
  UpdateMarker(const UpdateMarker&) = delete;
  UpdateMarker& operator=(const UpdateMarker&) = delete;
  ~UpdateMarker() { (void)std::remove(path_.c_str()); }

 private:
  std::string path_;
};

/// The numeric fields of a version text, which follow its prefix.
/// @throws std::out_of_range  the text is shorter than the prefix
string_list version_fields(const std::string& version) {
  string_list fields;
  CUpdateSoftImpl::parse_version(version.substr(kVersionPrefix), kFieldSeparator, fields);
  return fields;
}

bool is_newer(const std::string& offered, const std::string& installed) {
  const string_list offered_fields = version_fields(offered);
  const string_list installed_fields = version_fields(installed);
  const std::size_t common = std::min(offered_fields.size(), installed_fields.size());
  for (std::size_t i = 0; i < common; ++i) {
    const int offered_number = utility::CStr::to_int(offered_fields[i].c_str());
    const int installed_number = utility::CStr::to_int(installed_fields[i].c_str());
    if (offered_number != installed_number) return offered_number > installed_number;
  }
  return false;
}

}  // namespace

int CUpdateSoftImpl::init() {
  install_path = utility::CUnixHelper::get_norvak_path();
  work_dir = install_path + kWorkDir;
  data_dir = work_dir + kDataDir;
  package_path = work_dir + kPackage;
  version_file_path = work_dir + kVersionFile;
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
  std::string text = std::to_string(update_type);  // stays when the setting is missing
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
  url += kServerVersion;
  if (CUrlOp::url_down_file(url.c_str(), version_file_path.c_str()) != 0) {
    CUpdateLog::write_log(log_messages::kSoftVersionDownloadFailed, url.c_str(),
                          version_file_path.c_str());
    return -1;
  }
  int lines_with_text = 0;
  const bool readable =
      utility::visit_lines(version_file_path, kLineLimit, [&](const std::string& line) {
        if (!line.empty()) ++lines_with_text;
        return lines_with_text < 2;
      });
  return readable && lines_with_text == 1 ? 0 : -1;
}

std::string CUpdateSoftImpl::get_norvak_new_version() {
  if (!new_version.empty()) return new_version;
  const auto line = utility::read_first_line(version_file_path, kVersionLimit);
  if (!line) return "";
  new_version = *line;
  utility::remove_line_feed(new_version);
  return new_version;
}

void CUpdateSoftImpl::parse_version(const std::string& version, const std::string& separators,
                                    string_list& parts) {
  std::string::size_type begin = version.find_first_not_of(separators);
  while (begin != std::string::npos) {
    const std::string::size_type end = version.find_first_of(separators, begin);
    parts.push_back(version.substr(begin, end - begin));
    begin = version.find_first_not_of(separators, end);
  }
}

bool CUpdateSoftImpl::check_norvak_new_version_exist(std::string& installed, std::string& offered) {
  if (download_norvak_version_file() != 0) {
    CUpdateLog::write_log(log_messages::kSoftVersionUnknown);
    return false;
  }
  offered = get_norvak_new_version();
  installed = get_norvak_old_version();
  return is_newer(offered, installed);
}

int CUpdateSoftImpl::run_update_norvak_agent() {
  std::optional<UpdateMarker> marker(std::in_place, install_path);
  if (download_norvak_update_package() != 0) {
    CUpdateLog::write_log(log_messages::kSoftPackageDownloadFailed);
    return -1;
  }
  (void)CHelper::stop_norvak_agent();
  const int result = install_package();
  marker.reset();  // gone before the agent starts
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
  url += ::strcasecmp(host.machine, kMachine64) == 0 ? kServerPackage64 : kServerPackage32;
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
  return run_command(install_path + kTar + " xvf " + package_path + " -C " + data_dir +
                     kDiscardOutput);
}

int CUpdateSoftImpl::exec_script() {
  [[maybe_unused]] const int ignored = ::chdir(data_dir.c_str());
  (void)::chmod((data_dir + kScript).c_str(), kScriptMode);
  return run_command(std::string(".") + kScript + kDiscardOutput);
}

int CUpdateSoftImpl::update_config() {
  const std::unique_ptr<XmlDocument> document = newXmlDocument();
  if (document->load(config_path.c_str()) == 0) return -1;
  const XmlNodeList settings = document->root().select_nodes(config::kSettings);
  int changes = 0;
  for (int i = 0; i < settings.length() && changes < kMostChanges; ++i) {
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
    (void)document->save(config_path.c_str());  // one save for each change
    ++changes;
  }
  return 0;
}
