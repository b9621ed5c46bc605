#include "update_rule.h"

#include <optional>

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

int CUpdateRuleImpl::init() {
  install_path = utility::CUnixHelper::get_norvak_path();
  config_path = install_path + agent_files::kConfig;
  rule_md5_path = install_path + agent_files::kRuleMd5Download;
  rule_path = install_path + agent_files::kRuleDownload;
  utility::make_work_dir(install_path + agent_files::kRuleWorkDir);
  return 0;
}

void CUpdateRuleImpl::release() {
  (void)CHelper::remove_file(install_path + agent_files::kRuleWorkDir);
}

std::string CUpdateRuleImpl::get_url_from_xml() {
  return config::get_config_var(config_path, config::kKernelUpdateHost);
}

bool CUpdateRuleImpl::check_tarn_rules_md5() {
  // The engine modules apply the rules: a host without both of them gets none.
  for (const char* module : {agent_files::kQuorinModule, agent_files::kTesselModule}) {
    if (!utility::exists(agent_files::module_path(install_path, module))) return false;
  }
  const std::optional<std::string> current =
      published_digest::current_rules(install_path + agent_files::kCurrentRulesDigest);
  if (!current) return false;
  const std::string url = get_url_from_xml() + server_paths::kRulesDigestList;
  if (CUrlOp::url_down_file(url.c_str(), rule_md5_path.c_str()) != 0) return false;
  return published_digest::announces_new_rules(rule_md5_path, *current);
}

int CUpdateRuleImpl::download_tarn_rules_file() {
  const std::string url = get_url_from_xml() + server_paths::kRules;
  if (CUrlOp::url_down_file(url.c_str(), rule_path.c_str()) != 0) return -1;
  if (!check_download_rule_md5()) {
    CUpdateLog::write_log(log_messages::kRulesRefused);
    return -1;
  }
  CUpdateLog::write_log(log_messages::kRulesVerified);
  (void)CHelper::rename_file(rule_path, install_path + agent_files::kInstalledRules);
  return 0;
}

bool CUpdateRuleImpl::check_download_rule_md5() {
  return published_digest::verify_rules(rule_md5_path, rule_path);
}
