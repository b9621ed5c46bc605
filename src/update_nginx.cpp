#include "update_nginx.h"

#include <strings.h>

#include <cstdio>

#include "agent_files.h"
#include "help.h"
#include "log.h"
#include "log_messages.h"
#include "published_digest.h"
#include "server_paths.h"
#include "url_op.h"
#include "utility/file.h"
#include "utility/unix_helper.h"
#include "xml/config.h"

namespace {

constexpr char kWordSize64[] = "64-bit";

constexpr char kElfMark[] = "elf";
constexpr std::size_t kElfHeadBytes = 4;  // an unchecked byte, and the mark

}  // namespace

int CUpdateNginxImpl::init() {
  install_path = utility::CUnixHelper::get_norvak_path();
  nginx_download_path = install_path + agent_files::kNginxDownload;
  md5_download_path = install_path + agent_files::kNginxMd5Download;
  config_path = install_path + agent_files::kConfig;
  utility::make_work_dir(install_path + agent_files::kNginxWorkDir);
  return 0;
}

void CUpdateNginxImpl::release() {
  (void)CHelper::remove_file(install_path + agent_files::kNginxWorkDir);
}

std::string CUpdateNginxImpl::get_url_from_xml() {
  return config::get_config_var(config_path, config::kNginxUpdateHost);
}

std::string CUpdateNginxImpl::get_nginx_arch(const char* word_size) {
  return ::strcasecmp(word_size, kWordSize64) == 0 ? server_paths::kX64 : server_paths::kX86;
}

bool CUpdateNginxImpl::is_elf(const char* path) {
  const utility::FilePtr file(std::fopen(path, "rbe"));
  if (!file) return false;
  char head[kElfHeadBytes + 1] = {};
  // The missing bytes of a short file stay zero.
  [[maybe_unused]] const std::size_t ignored = std::fread(head, 1, kElfHeadBytes, file.get());
  return ::strcasecmp(head + 1, kElfMark) == 0;
}

bool CUpdateNginxImpl::check_file_md5() {
  return published_digest::same_nginx_build(install_path + agent_files::kInstalledNginxMd5,
                                            md5_download_path);
}

int CUpdateNginxImpl::download_nginx(const char* version_dir, const char* word_size) {
  const std::string host = get_url_from_xml();
  if (host.empty()) return -1;
  const std::string build =
      host + server_paths::nginx_directory(get_nginx_arch(word_size), version_dir);

  if (CUrlOp::url_down_file(server_paths::nginx_identification(build).c_str(),
                            md5_download_path.c_str()) != 0)
    return -1;
  if (check_file_md5()) {
    CUpdateLog::write_log(log_messages::kNginxNotNew);
    return -1;
  }
  CUpdateLog::write_log(log_messages::kNginxDownloading);
  if (CUrlOp::url_down_file(server_paths::nginx_program(build).c_str(),
                            nginx_download_path.c_str()) != 0)
    return -1;
  if (!is_elf(nginx_download_path.c_str())) return -1;

  // The program first: if the second move fails, the next run installs the build again.
  (void)CHelper::rename_file(nginx_download_path, install_path + agent_files::kInstalledNginx);
  (void)CHelper::rename_file(md5_download_path, install_path + agent_files::kInstalledNginxMd5);
  return 0;
}
