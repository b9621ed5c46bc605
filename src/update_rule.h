// Update type 3: the agent's protection rules.
#pragma once

#include <string>

/// Replaces the agent's default rule file with the one that the update server publishes, if the
/// published digest differs from the one recorded on the host.
///
/// Call init() first and release() last.
class CUpdateRuleImpl {
 public:
  /// Sets the paths and creates the work directory.
  /// @return always 0: if the directory cannot be created, the steps that need it fail
  int init();

  /// Removes the work directory with everything in it.
  void release();

  /// The base address of the update server, exactly as configured: that of the kernel modules
  /// serves the rules too. Empty if the configuration cannot be loaded or lacks it.
  std::string get_url_from_xml();

  /// Whether the server publishes rules other than those the agent runs: downloads their digest and
  /// compares it with the first line of template/system_rule.dat, byte for byte. If that file does
  /// not exist, any digest is new.
  ///
  /// Also false if an engine module is not installed, if either digest cannot be read, or if the
  /// downloaded file does not have exactly one line.
  [[nodiscard]] bool check_tarn_rules_md5();

  /// Downloads, verifies and installs the rule file. template/system_rule.dat is not changed.
  /// @return 0 if the file was verified and moved; the result of the move is ignored. -1 if the
  ///         installed file is unchanged: logged.
  [[nodiscard]] int download_tarn_rules_file();

  /// Whether the downloaded rules match the downloaded digest: see published_digest::verify_rules.
  [[nodiscard]] bool check_download_rule_md5();

 private:
  std::string install_path;
  std::string config_path;
  std::string rule_md5_path;
  std::string rule_path;
};
