// Update type 2: the web server program that the agent ships.
#pragma once

#include <string>

/// Replaces the agent's nginx program by the build that the update server publishes for a version
/// and word size, when its identification line is not the installed one.
///
/// Call init() first and release() last.
class CUpdateNginxImpl {
 public:
  /// Sets the paths and creates the work directory.
  /// @return always 0: a directory that cannot be created shows in the steps that need it
  int init();

  /// Removes the work directory with everything in it.
  void release();

  /// The base address of the update server, as it is stored; empty when the configuration cannot be
  /// loaded or does not hold it.
  std::string get_url_from_xml();

  /// "x64" when @a word_size is "64-bit", in any letter case; otherwise "x86".
  static std::string get_nginx_arch(const char* word_size);

  /// Whether the second, third and fourth bytes of a file read "elf" in any letter case; false when
  /// it cannot be opened.
  static bool is_elf(const char* path);

  /// Whether the installed identification equals the downloaded one: both first lines, at most 127
  /// bytes, line feeds included. A file that cannot be opened counts as empty text; without an
  /// installed identification the answer is false. No digest is computed.
  [[nodiscard]] bool check_file_md5();

  /// Fetches the build for @a version_dir and @a word_size and installs it. Its mode is that of a
  /// newly created file: making it executable is not this program's work.
  ///
  /// @return 0 when program and identification were handed to the installation, whose result is not
  ///         looked at; -1 when the installed build is untouched: there is no server address, a
  ///         download failed, the build is not new, or the file is not a program
  [[nodiscard]] int download_nginx(const char* version_dir, const char* word_size);

 private:
  std::string install_path;
  std::string nginx_download_path;
  std::string md5_download_path;
  std::string config_path;
};
