// Update type 1: the agent's kernel modules.
#pragma once

#include <string>

#include "host_identity.h"

/// Installs the builds of the agent's kernel modules that the update server offers for the host's
/// distribution, kernel flavour, processor family and kernel version.
///
/// Call init() first and release() last.
class CUpdateKernelImpl {
 public:
  using KernelInfo = host_identity::KernelInfo;

  static constexpr int kMustDownload = 0;
  static constexpr int kNothingToDo = 1;

  /// Sets the paths and creates the work directory.
  /// @return always 0: if the directory cannot be created, the steps that need it fail
  int init();

  /// Removes the work directory with everything in it.
  void release();

  /// The distribution family: see host_identity::distribution.
  std::string get_os_type();

  /// The processor family: see host_identity::module_arch. Empty if `uname` fails.
  std::string get_local_os_arch();

  /// Describes the running kernel: see host_identity::describe_kernel.
  /// @param[in,out] info  unchanged if `uname` fails
  void get_local_kernel_version(int os_code, KernelInfo& info);

  /// The base address of the update server, exactly as configured. Empty if the configuration
  /// cannot be loaded or lacks it.
  std::string get_url_from_xml();

  /// The address of a module's digest list (@a url_kind 0) or of the module itself (any other).
  std::string build_url_string(int url_kind, const std::string& host, const std::string& os_type,
                               const std::string& arch, const KernelInfo& info,
                               const std::string& name);

  /// Path of the installed module @a name.
  std::string get_kernel_full_path(const char* name);

  /// Whether the downloaded module matches the downloaded digest list: see
  /// published_digest::verify_module.
  [[nodiscard]] bool check_download_kernel_md5();

  /// Records the kernel version, downloads the digest list of the module @a name and compares it
  /// with the installed module: see published_digest::compare_module.
  ///
  /// @return kMustDownload  the module is not installed, or differs;
  ///         kNothingToDo   it is current, or the host or the server could not be identified;
  ///         -1             the list could not be downloaded or read, or has several lines: logged
  [[nodiscard]] int check_update_kernel(const char* name);

  /// Downloads, verifies and installs the module @a name. Call it right after check_update_kernel
  /// returned kMustDownload for it: it uses the digest list which that call downloaded.
  ///
  /// @return 0             the module was verified and moved; the result of the move is ignored;
  ///         kNothingToDo  the host or the server could not be identified; nothing was downloaded;
  ///         -1            download or verification failed: logged; the installed module is kept
  [[nodiscard]] int download_kernel(const char* name);

  /// Removes the installed engine modules, tessel_linux and quorin_linux, unless both exist: one is
  /// never left without the other.
  void clear_tarn_kernel();

 private:
  struct Host;

  /// @return false if a member of @a host is still empty
  bool identify(Host& host);

  void record_kernel_version(const std::string& version);

  std::string install_path;
  std::string md5_path;
  std::string kernel_path;
  std::string config_path;
};
