#include "update_rule.h"

#include <optional>

#include "agent_files.h"
#include "help.h"
#include "log.h"
#include "log_messages.h"
#include "url_op.h"
#include "utility/file.h"
#include "utility/md5wrapper.h"
#include "utility/string_list.h"
#include "utility/unix_helper.h"
#include "xml/config.h"

namespace {

// Below the install directory.
constexpr char kWorkDir[] = "/update_norvak_rule";
constexpr char kCurrentMd5[] = "/template/system_rule.dat";
constexpr char kInstalledRules[] = "/template/norvak_default_rule.xml";
// Below the work directory.
constexpr char kRuleMd5[] = "/rule_md5";
constexpr char kRule[] = "/rule";
// Below the update server's address.
constexpr char kServerMd5[] = "/tarn_rule/md5";
constexpr char kServerRules[] = "/tarn_rule/norvak_default_rule.xml";

constexpr int kListLimit = 1024;
constexpr std::size_t kTooManyLines = 2;
constexpr int kDigestLimit = 128;

}  // namespace

int CUpdateRuleImpl::init() {
  install_path = utility::CUnixHelper::get_norvak_path();
  config_path = install_path + agent_files::kConfig;
  rule_md5_path = install_path + kWorkDir + kRuleMd5;
  rule_path = install_path + kWorkDir + kRule;
  utility::make_work_dir(install_path + kWorkDir);
  return 0;
}

void CUpdateRuleImpl::release() { (void)CHelper::remove_file(install_path + kWorkDir); }

std::string CUpdateRuleImpl::get_url_from_xml() {
  return config::get_config_var(config_path, config::kKernelUpdateHost);
}

bool CUpdateRuleImpl::check_tarn_rules_md5() {
  // Rules are for the engine modules: a host without both of them gets none.
  for (const char* module : {agent_files::kQuorinModule, agent_files::kTesselModule}) {
    if (!utility::exists(agent_files::module_path(install_path, module))) return false;
  }
  std::string current;
  const std::string current_path = install_path + kCurrentMd5;
  if (utility::exists(current_path)) {
    const std::optional<std::string> line = utility::read_first_line(current_path, kListLimit);
    if (!line) return false;
    current = *line;
    utility::remove_line_feed(current);
  }
  const std::string url = get_url_from_xml() + kServerMd5;
  if (CUrlOp::url_down_file(url.c_str(), rule_md5_path.c_str()) != 0) return false;
  string_list announced;
  if (!utility::read_lines(rule_md5_path, kListLimit, kTooManyLines, announced)) return false;
  return announced.size() == 1 && announced.front() != current;
}

int CUpdateRuleImpl::download_tarn_rules_file() {
  const std::string url = get_url_from_xml() + kServerRules;
  if (CUrlOp::url_down_file(url.c_str(), rule_path.c_str()) != 0) return -1;
  if (!check_download_rule_md5()) {
    CUpdateLog::write_log(log_messages::kRulesRefused);
    return -1;
  }
  CUpdateLog::write_log(log_messages::kRulesVerified);
  (void)CHelper::rename_file(rule_path, install_path + kInstalledRules);
  return 0;
}

bool CUpdateRuleImpl::check_download_rule_md5() {
  std::optional<std::string> published = utility::read_first_line(rule_md5_path, kDigestLimit);
  if (!published) return false;
  utility::remove_line_feed(*published);
  return utility::md5wrapper().getHashFromFile(rule_path) == *published;
}
