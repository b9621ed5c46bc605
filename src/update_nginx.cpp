#include "update_nginx.h"

#include <strings.h>

#include <cstdio>

#include "agent_files.h"
#include "help.h"
#include "log.h"
#include "log_messages.h"
#include "url_op.h"
#include "utility/file.h"
#include "utility/unix_helper.h"
#include "xml/config.h"

namespace {

// Below the install directory.
constexpr char kWorkDir[] = "/update_norvak_nginx";
constexpr char kInstalledNginx[] = "/nginx/bin/nginx";
constexpr char kInstalledMd5[] = "/nginx/md5";
// Below the work directory, and in a build's directory on the update server.
constexpr char kNginx[] = "/nginx";
// Below the update server's address.
constexpr char kServerBuilds[] = "/nginx_new/";

constexpr char kWordSize64[] = "64-bit";

constexpr int kIdentificationLimit = 128;
constexpr char kElfMark[] = "elf";
constexpr std::size_t kElfHeadBytes = 4;  // one byte that is not looked at, and the mark

std::string read_identification(const std::string& path) {
  return utility::read_first_line(path, kIdentificationLimit).value_or("");
}

}  // namespace

int CUpdateNginxImpl::init() {
  install_path = utility::CUnixHelper::get_norvak_path();
  nginx_download_path = install_path + kWorkDir + kNginx;
  md5_download_path = install_path + kWorkDir + agent_files::kMd5;
  config_path = install_path + agent_files::kConfig;
  utility::make_work_dir(install_path + kWorkDir);
  return 0;
}

void CUpdateNginxImpl::release() { (void)CHelper::remove_file(install_path + kWorkDir); }

std::string CUpdateNginxImpl::get_url_from_xml() {
  return config::get_config_var(config_path, config::kNginxUpdateHost);
}

std::string CUpdateNginxImpl::get_nginx_arch(const char* word_size) {
  return ::strcasecmp(word_size, kWordSize64) == 0 ? agent_files::kX64 : agent_files::kX86;
}

bool CUpdateNginxImpl::is_elf(const char* path) {
  const utility::FilePtr file(std::fopen(path, "rbe"));
  if (!file) return false;
  char head[kElfHeadBytes + 1] = {};
  // What a short file lacks stays zero.
  [[maybe_unused]] const std::size_t ignored = std::fread(head, 1, kElfHeadBytes, file.get());
  return ::strcasecmp(head + 1, kElfMark) == 0;
}

bool CUpdateNginxImpl::check_file_md5() {
  const std::string installed_path = install_path + kInstalledMd5;
  if (!utility::exists(installed_path)) return false;
  return read_identification(installed_path) == read_identification(md5_download_path);
}

int CUpdateNginxImpl::download_nginx(const char* version_dir, const char* word_size) {
  const std::string host = get_url_from_xml();
  if (host.empty()) return -1;
  const std::string build = host + kServerBuilds + get_nginx_arch(word_size) + "/" + version_dir;

  if (CUrlOp::url_down_file((build + agent_files::kMd5).c_str(), md5_download_path.c_str()) != 0)
    return -1;
  if (check_file_md5()) {
    CUpdateLog::write_log(log_messages::kNginxNotNew);
    return -1;
  }
  CUpdateLog::write_log(log_messages::kNginxDownloading);
  if (CUrlOp::url_down_file((build + kNginx).c_str(), nginx_download_path.c_str()) != 0) return -1;
  if (!is_elf(nginx_download_path.c_str())) return -1;

  // The program goes first: should the second move fail, the next run installs the build again.
  (void)CHelper::rename_file(nginx_download_path, install_path + kInstalledNginx);
  (void)CHelper::rename_file(md5_download_path, install_path + kInstalledMd5);
  return 0;
}
