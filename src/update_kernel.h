// Update type 1: the agent's kernel modules.
#pragma once

#include <string>

#include "host_identity.h"

/// Keeps the agent's kernel modules in step with the builds that the update server offers for the
/// host's distribution, kernel flavour, processor family and kernel version.
///
/// Call init() first and release() last.
class CUpdateKernelImpl {
 public:
  using KernelInfo = host_identity::KernelInfo;

  static constexpr int kMustDownload = 0;
  static constexpr int kNothingToDo = 1;

  /// Sets the paths and creates the work directory.
  /// @return always 0: a directory that cannot be created shows in the steps that need it
  int init();

  /// Removes the work directory with everything in it.
  void release();

  /// The distribution, told by marker files in the install directory: "ubuntu", "suse" or, without
  /// a marker, "centos".
  std::string get_os_type();

  /// The processor family: "x86" for the machine names i386 and i686, "x64" for every other; empty
  /// when the host cannot be asked.
  std::string get_local_os_arch();

  /// Describes the running kernel.
  ///
  /// @param os_code  how to read its release: 1 for "centos", 2 for "suse", 3 for any other
  /// @param[in,out] info  unchanged when the host cannot be asked; with 2, the flavour is unchanged
  ///                      when the release names none
  void get_local_kernel_version(int os_code, KernelInfo& info);

  /// The base address of the update server, as it is stored; empty when the configuration cannot be
  /// loaded or does not hold it.
  std::string get_url_from_xml();

  /// The address of a module's MD5 list (@a url_kind 0) or of the module itself (any other).
  std::string build_url_string(int url_kind, const std::string& host, const std::string& os_type,
                               const std::string& arch, const KernelInfo& info,
                               const std::string& name);

  /// Path of the installed module @a name.
  std::string get_kernel_full_path(const char* name);

  /// Whether the downloaded module has the digest that stands in the first line of the downloaded
  /// MD5 list. White space around the digest does not count.
  [[nodiscard]] bool check_download_kernel_md5();

  /// Fetches the MD5 list of the module @a name and compares it with the installed module. White
  /// space around the digest counts: such a list never matches. Records the kernel version.
  ///
  /// @return kMustDownload  it is not installed, or differs;
  ///         kNothingToDo   it is current, or the host or the server is not known;
  ///         -1             the list could not be had or has several lines, after a line in the log
  [[nodiscard]] int check_update_kernel(const char* name);

  /// Fetches, verifies and installs the module @a name. To be called right after
  /// check_update_kernel returned kMustDownload for it: the MD5 list is the one that the check
  /// left.
  ///
  /// @return 0  the verified module was handed to the installation, whose result is not looked at;
  ///         kNothingToDo  the host or the server is not known; nothing was fetched;
  ///         -1 download or verification failed, after a line in the log; the installed module is
  ///         untouched
  [[nodiscard]] int download_kernel(const char* name);

  /// Removes the installed engine modules, tessel_linux and quorin_linux, unless both are there:
  /// one is never left without the other.
  void clear_tarn_kernel();

 private:
  struct Host;

  /// Fills @a host.
  /// @return false when a part of it is not known
  bool identify(Host& host);

  void record_kernel_version(const std::string& version);

  std::string install_path;
  std::string md5_path;
  std::string kernel_path;
  std::string config_path;
};
