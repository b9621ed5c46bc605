#include "update_kernel.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <optional>

#include "agent_files.h"
#include "help.h"
#include "log.h"
#include "log_messages.h"
#include "url_op.h"
#include "utility/cstr.h"
#include "utility/file.h"
#include "utility/md5wrapper.h"
#include "utility/unix_helper.h"
#include "xml/config.h"

namespace {

// Below the install directory.
constexpr char kWorkDir[] = "/update_norvak_kernel";
constexpr char kVersionRecord[] = "/runlog/kernel_version";
// Below the work directory.
constexpr char kKernel[] = "/kernel";
// Below the update server's address.
constexpr char kServerKernels[] = "/kernels/";

constexpr char kUbuntu[] = "ubuntu";
constexpr char kSuse[] = "suse";
constexpr char kCentos[] = "centos";

constexpr int kCentosCode = 1;
constexpr int kSuseCode = 2;
constexpr int kOtherCode = 3;

constexpr int kMd5ListUrl = 0;
constexpr int kModuleUrl = 1;

/// A version prefix ends in front of its fourth character that is no digit.
constexpr int kSeparatorsInVersion = 4;

constexpr int kDigestLimit = 128;
constexpr int kListLimit = 1024;
constexpr std::size_t kTooManyLines = 2;
constexpr std::size_t kRecordPathLimit = 128;
constexpr mode_t kRecordMode = 0666;  // less the umask

std::string upper_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

/// The first of @a flavours that stands in @a release in capitals; nothing when none does.
std::optional<std::string> find_flavour(const std::string& release,
                                        std::initializer_list<const char*> flavours) {
  for (const char* flavour : flavours) {
    if (contains(release, upper_case(flavour))) return flavour;
  }
  return std::nullopt;
}

void set_flavour(int os_code, const std::string& release, std::string& flavour) {
  switch (os_code) {
    case kCentosCode:
      flavour = find_flavour(release, {"xen", "pae"}).value_or("");
      break;
    case kSuseCode:  // unlike the others, leaves the flavour alone when it finds none
      flavour = find_flavour(release, {"default", "desktop", "pae"}).value_or(flavour);
      break;
    default:
      flavour = find_flavour(release, {"server"}).value_or("generic");
      break;
  }
}

/// On SUSE the version ends in front of the flavour.
std::size_t suse_version_length(const std::string& release, const std::string& flavour) {
  if (flavour.empty()) return release.size();
  // The width of the position is part of the rule; "not found" is past the end in any width.
  return static_cast<std::uint32_t>(release.find(upper_case("-" + flavour)));
}

std::size_t common_version_length(const std::string& release) {
  int separators = 0;
  for (std::size_t i = 0; i < release.size(); ++i) {
    const bool is_digit = release[i] >= '0' && release[i] <= '9';
    if (!is_digit && ++separators == kSeparatorsInVersion) return i;
  }
  return release.size();
}

}  // namespace

/// What the update server has to be told about the host, and where the server is.
struct CUpdateKernelImpl::Host {
  std::string server;
  std::string os_type;
  KernelInfo kernel;
  std::string arch;
};

int CUpdateKernelImpl::init() {
  install_path = utility::CUnixHelper::get_norvak_path();
  md5_path = install_path + kWorkDir + agent_files::kMd5;
  kernel_path = install_path + kWorkDir + kKernel;
  config_path = install_path + agent_files::kConfig;
  utility::make_work_dir(install_path + kWorkDir);
  return 0;
}

void CUpdateKernelImpl::release() { (void)CHelper::remove_file(install_path + kWorkDir); }

std::string CUpdateKernelImpl::get_os_type() {
  for (const char* marked : {kUbuntu, kSuse}) {
    if (utility::exists(install_path + "/" + marked)) return marked;
  }
  return kCentos;
}

std::string CUpdateKernelImpl::get_local_os_arch() {
  struct utsname host = {};
  if (::uname(&host) != 0) return "";
  const std::string machine(host.machine);
  return machine == "i386" || machine == "i686" ? agent_files::kX86 : agent_files::kX64;
}

void CUpdateKernelImpl::get_local_kernel_version(int os_code, KernelInfo& info) {
  struct utsname host = {};
  if (::uname(&host) != 0) return;
  const std::string running = upper_case(host.release);
  set_flavour(os_code, running, info.flavour);
  const std::size_t length = os_code == kSuseCode ? suse_version_length(running, info.flavour)
                                                  : common_version_length(running);
  info.version = running.substr(0, length);
}

std::string CUpdateKernelImpl::get_url_from_xml() {
  return config::get_config_var(config_path, config::kKernelUpdateHost);
}

std::string CUpdateKernelImpl::build_url_string(int url_kind, const std::string& host,
                                                const std::string& os_type, const std::string& arch,
                                                const KernelInfo& info, const std::string& name) {
  std::string distribution = os_type;
  if (!info.flavour.empty()) distribution += "-" + info.flavour;
  const std::string directory =
      host + kServerKernels + distribution + "/" + arch + "/" + info.version + "/" + name;
  if (url_kind == kMd5ListUrl) return directory + agent_files::kMd5;
  return directory + "/" + name + agent_files::kModuleSuffix;
}

std::string CUpdateKernelImpl::get_kernel_full_path(const char* name) {
  return agent_files::module_path(install_path, name);
}

bool CUpdateKernelImpl::check_download_kernel_md5() {
  std::optional<std::string> published = utility::read_first_line(md5_path, kDigestLimit);
  if (!published) return false;
  std::string digest = utility::md5wrapper().getHashFromFile(kernel_path);
  utility::CStr::trim(digest);
  utility::CStr::trim(*published);
  return digest == *published;
}

int CUpdateKernelImpl::check_update_kernel(const char* name) {
  Host host;
  if (!identify(host)) return kNothingToDo;
  record_kernel_version(host.kernel.version);

  const std::string url =
      build_url_string(kMd5ListUrl, host.server, host.os_type, host.arch, host.kernel, name);
  if (CUrlOp::url_down_file(url.c_str(), md5_path.c_str()) != 0) {
    CUpdateLog::write_log(log_messages::kKernelListDownloadFailed, name);
    return -1;
  }
  string_list lines;
  if (!utility::read_lines(md5_path, kListLimit, kTooManyLines, lines)) {
    CUpdateLog::write_log(log_messages::kKernelListUnreadable);
    return -1;
  }
  if (lines.size() == kTooManyLines) {
    CUpdateLog::write_log(log_messages::kKernelListAbnormal);
    return -1;
  }
  const std::string installed = get_kernel_full_path(name);
  if (lines.empty() || !utility::exists(installed)) return kMustDownload;
  const std::string digest = utility::md5wrapper().getHashFromFile(installed);
  return digest == lines.front() ? kNothingToDo : kMustDownload;
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
  const int os_code = host.os_type == kCentos ? kCentosCode
                      : host.os_type == kSuse ? kSuseCode
                                              : kOtherCode;
  get_local_kernel_version(os_code, host.kernel);
  host.arch = get_local_os_arch();
  return !host.server.empty() && !host.os_type.empty() && !host.kernel.version.empty() &&
         !host.arch.empty();
}

void CUpdateKernelImpl::record_kernel_version(const std::string& version) {
  // The doubled slash and the cut of a long path are kept.
  char path[kRecordPathLimit + 1] = {};
  (void)std::snprintf(path, kRecordPathLimit, "%s/%s", install_path.c_str(), kVersionRecord);
  if (utility::exists(path)) (void)::unlink(path);
  const utility::Descriptor record(
      ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kRecordMode));
  if (record) (void)utility::write_all(record.get(), version.data(), version.size());
}
