// Update type 3: the agent's protection rules.
#pragma once

#include <string>

/// Replaces the agent's default rule file by the one that the update server publishes, when the
/// digest announced there is not the one recorded on the host.
///
/// Call init() first and release() last.
class CUpdateRuleImpl {
 public:
  /// Sets the paths and creates the work directory.
  /// @return always 0: a directory that cannot be created shows in the steps that need it
  int init();

  /// Removes the work directory with everything in it.
  void release();

  /// The base address of the update server, as it is stored: rules come from the kernel modules'
  /// server. Empty when the configuration cannot be loaded or does not hold it.
  std::string get_url_from_xml();

  /// Whether the server announces other rules than those the host runs: fetches their digest and
  /// compares it with the first line of template/system_rule.dat, byte for byte. Where that file is
  /// missing, any announced digest is new.
  ///
  /// False as well when one of the two engine modules is not installed, when a digest cannot be
  /// had, and when the server's text is not exactly one line.
  [[nodiscard]] bool check_tarn_rules_md5();

  /// Fetches, verifies and installs the rule file. template/system_rule.dat is left alone.
  /// @return 0 when the verified file was handed to the installation, whose result is not looked
  /// at;
  ///         -1, after a line in the log, when the installed file is untouched
  [[nodiscard]] int download_tarn_rules_file();

  /// Whether the downloaded rule file has the digest that the downloaded first line holds, exactly:
  /// white space or capitals never match.
  [[nodiscard]] bool check_download_rule_md5();

 private:
  std::string install_path;
  std::string config_path;
  std::string rule_md5_path;
  std::string rule_path;
};
