// Update type 0: the agent software.
#pragma once

#include <string>

#include "utility/string_list.h"

/// Replaces the agent with a newer package from the update server. The package's own script
/// installs it; this class downloads and unpacks the package, runs the script and carries settings
/// over.
///
/// Call init() first and release() last.
class CUpdateSoftImpl {
 public:
  /// Sets the paths and creates the work directories.
  /// @return always 0: if a directory cannot be created, the steps that need it fail
  int init();

  /// Removes the work directory with everything in it.
  void release();

  /// The base address of the update server, exactly as configured. Empty if the configuration
  /// cannot be loaded or lacks it.
  std::string get_download_url();

  /// The update method that refuses automatic runs.
  static constexpr int kManualUpdating = 1;

  /// Reads the update method.
  /// @param[out] update_type  changed only if the setting exists
  /// @return 0; -1 if the configuration cannot be loaded: logged
  [[nodiscard]] int get_update_method(int& update_type);

  /// The installed agent's version. Empty if the configuration cannot be loaded or lacks it.
  std::string get_norvak_old_version();

  /// Downloads the version file, which must have exactly one line that is not empty.
  /// @return 0, or -1; a failed download is logged
  [[nodiscard]] int download_norvak_version_file();

  /// The version in the version file: see version::read_version_file. Empty if there is none.
  /// Cached: the first text that is not empty is returned by all later calls.
  std::string get_norvak_new_version();

  /// Splits @a version: see version::split.
  static void parse_version(const std::string& version, const std::string& separators,
                            string_list& parts);

  /// Whether the server offers a newer version than the installed one: see version::is_newer.
  ///
  /// @param[out] installed, offered  both versions in full, if the version file was downloaded
  /// @throws std::out_of_range  a version has fewer than six characters. Nothing catches it: such a
  ///         host or server needs a person to look at it.
  [[nodiscard]] bool check_norvak_new_version_exist(std::string& installed, std::string& offered);

  /// Downloads and installs the package. The agent is stopped only after the package is on disk,
  /// and is then started again whatever happens. There is no rollback.
  /// @return 0, or -1: logged
  [[nodiscard]] int run_update_norvak_agent();

  /// Downloads the package for the host's processor family. It is not verified.
  /// @return 0; -1 if there is no server address or the download failed
  [[nodiscard]] int download_norvak_update_package();

  /// Saves the update method for update_config, unpacks the package and runs its script.
  /// @return 0; -1 if the configuration cannot be loaded (not logged) or a step failed (logged)
  [[nodiscard]] int update_now();

  /// Unpacks the package with the tar program that the agent ships.
  /// @return 0; -1 if the command could not be run, was ended by a signal or exited nonzero
  [[nodiscard]] int decompress_package();

  /// Runs the unpacked package's script "update" in its directory, which stays the working
  /// directory.
  /// @return as decompress_package
  [[nodiscard]] int exec_script();

  /// Writes the new version and the saved update method into the configuration file that the script
  /// left. Saves the file after each change, and stops after the second change.
  /// @return 0, whether or not anything was changed; -1 if the file cannot be loaded
  [[nodiscard]] int update_config();

 private:
  int install_package();

  std::string new_version;
  std::string saved_update_type;  ///< saved by update_now for update_config
  std::string install_path;
  std::string work_dir;
  std::string data_dir;
  std::string package_path;
  std::string version_file_path;
  std::string config_path;
};
