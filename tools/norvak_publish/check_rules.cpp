#include "check_areas.h"
#include "published_digest.h"
#include "server_paths.h"
#include "utility/md5wrapper.h"
#include "xml/xml_document.h"

namespace publish {

namespace {

void check_rules(const TreeReader& tree, Findings& findings) {
  const std::string list = server_paths::kRulesDigestList;
  const std::string rules = server_paths::kRules;
  if (!tree.exists(list) && !tree.exists(rules)) return;  // this server publishes no rules
  constexpr char kWhy[] = "Hosts get an error page in its place, and no rules.";
  const bool has_list = tree.require_file(list, kWhy, findings);
  const bool has_rules = tree.require_file(rules, kWhy, findings);
  if (!has_rules) return;
  const std::string rules_path = tree.on_disk(rules);
  if (has_list) {
    const std::string list_path = tree.on_disk(list);
    const std::string digest = utility::md5wrapper().getHashFromFile(rules_path);
    const bool is_announced = published_digest::announces_new_rules(list_path, "");
    const bool is_current_then = !published_digest::announces_new_rules(list_path, digest);
    if (!is_announced || !is_current_then) {
      findings.push_back(explain_digest_list(tree, list, rules));
    }
  }
  if (newXmlDocument()->load(rules_path.c_str()) == 0) {
    findings.push_back(make_finding(
        findings::kRulesXml, TreeReader::shown(rules),
        "The rules are not well-formed XML. Hosts install them and stop their agent, which then "
        "cannot read its rules.",
        "Publish a file that xmllint --noout accepts."));
  }
}

}  // namespace

void add_rules_tasks(const TreeReader& tree, std::vector<CheckTask>& tasks) {
  tasks.emplace_back([&tree](Findings& findings) { check_rules(tree, findings); });
}

}  // namespace publish
