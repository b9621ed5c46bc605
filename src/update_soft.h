// Update type 0: the agent software.
#pragma once

#include <string>

#include "utility/string_list.h"

/// Replaces the agent by a newer package from the update server. The package's own script does the
/// installation; this class fetches, unpacks and runs it, and carries settings over.
///
/// Call init() first and release() last.
class CUpdateSoftImpl {
 public:
  /// Sets the paths and creates the work directories.
  /// @return always 0: a directory that cannot be created shows in the steps that need it
  int init();

  /// Removes the work directory with everything in it.
  void release();

  /// The base address of the update server, as it is stored; empty when the
  /// configuration cannot be loaded or does not hold it.
  std::string get_download_url();

  /// Reads the update method; 1 is manual updating.
  /// @param[out] update_type  changed only when the setting exists
  /// @return 0; -1, after a line in the log, when the configuration cannot be loaded
  [[nodiscard]] int get_update_method(int& update_type);

  /// The installed agent's version; empty when the configuration cannot be loaded or lacks it.
  std::string get_norvak_old_version();

  /// Fetches the version file, which must have exactly one line that is not empty.
  /// @return 0, or -1; a failed download is logged
  [[nodiscard]] int download_norvak_version_file();

  /// The first line of the version file, at most 63 characters; empty when there is no file or that
  /// line is. Read once: the first text that is not empty is returned by all later calls.
  std::string get_norvak_new_version();

  /// Splits @a version at the characters in @a separators and appends the fields, none of them
  /// empty, to @a parts.
  static void parse_version(const std::string& version, const std::string& separators,
                            string_list& parts);

  /// Whether the server offers a newer version than the installed one. Fields are compared as
  /// numbers, up to the end of the shorter version; a prefix of six characters is skipped.
  ///
  /// @param[out] installed, offered  both versions in full, once the server's is known
  /// @throws std::out_of_range  a version has fewer than six characters. Nothing in this program
  ///         catches it: a host or a server in such a state needs a person to look at it.
  [[nodiscard]] bool check_norvak_new_version_exist(std::string& installed, std::string& offered);

  /// Downloads and installs the package. The agent is stopped only once the package is on disk, and
  /// is started again whatever happens after that. There is no rollback.
  /// @return 0, or -1 after lines in the log
  [[nodiscard]] int run_update_norvak_agent();

  /// Fetches the package for the host's processor family. It is not checked in any way.
  /// @return 0; -1 when there is no server address, or the download failed
  [[nodiscard]] int download_norvak_update_package();

  /// Notes the update method for update_config, unpacks the package and runs its script.
  /// @return 0; -1 when the configuration cannot be loaded, or after a line in the log
  [[nodiscard]] int update_now();

  /// Unpacks the package with the tar program that the agent ships.
  /// @return 0; -1 when the command could not be run, was ended by a signal or exited nonzero
  [[nodiscard]] int decompress_package();

  /// Runs the unpacked package's script "update" in its directory, where the process stays.
  /// @return as decompress_package
  [[nodiscard]] int exec_script();

  /// Writes the new version and the noted update method into the configuration file that the script
  /// left. The file is saved after each change, and changes end with the second.
  /// @return 0, whether or not there was something to change; -1 when it cannot be loaded
  [[nodiscard]] int update_config();

 private:
  int install_package();

  std::string new_version;
  std::string saved_update_type;  ///< update_now's note for update_config
  std::string install_path;
  std::string work_dir;
  std::string data_dir;
  std::string package_path;
  std::string version_file_path;
  std::string config_path;
};
