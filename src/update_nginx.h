// Update type 2: the web server program that the agent ships.
#pragma once

#include <string>

/// Replaces the agent's nginx program with the build that the update server publishes for a version
/// and word size, if its identification line differs from the installed one.
///
/// Call init() first and release() last.
class CUpdateNginxImpl {
 public:
  /// Sets the paths and creates the work directory.
  /// @return always 0: if the directory cannot be created, the steps that need it fail
  int init();

  /// Removes the work directory with everything in it.
  void release();

  /// The base address of the update server, exactly as configured. Empty if the configuration
  /// cannot be loaded or lacks it.
  std::string get_url_from_xml();

  /// "x64" if @a word_size is "64-bit", in any letter case; otherwise "x86".
  static std::string get_nginx_arch(const char* word_size);

  /// Whether the second to fourth bytes of a file are "elf" in any letter case. False if it cannot
  /// be opened.
  static bool is_elf(const char* path);

  /// Whether the installed build is the one on the server: see published_digest::same_nginx_build.
  /// The program itself is not compared.
  [[nodiscard]] bool check_file_md5();

  /// Downloads and installs the build for @a version_dir and @a word_size. It gets the mode of a
  /// newly created file: this program does not make it executable.
  ///
  /// @return 0 if the program and its identification were moved; the results of the moves are
  ///         ignored. -1 if the installed build is unchanged: no server address, a failed download,
  ///         not a new build, or not a program.
  [[nodiscard]] int download_nginx(const char* version_dir, const char* word_size);

 private:
  std::string install_path;
  std::string nginx_download_path;
  std::string md5_download_path;
  std::string config_path;
};
