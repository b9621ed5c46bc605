// What the update server's directories call this host: its distribution, processor family and
// kernel. Nothing here logs.
#pragma once

#include <string>

namespace host_identity {

inline constexpr char kUbuntu[] = "ubuntu";
inline constexpr char kSuse[] = "suse";
inline constexpr char kCentos[] = "centos";

// How to read a kernel release, by distribution.
inline constexpr int kCentosCode = 1;
inline constexpr int kSuseCode = 2;
inline constexpr int kOtherCode = 3;

/// The marker file of @a distribution below the install directory. "centos" needs none.
[[nodiscard]] std::string distribution_marker(const std::string& install_path,
                                              const char* distribution);

/// The distribution family: "ubuntu" or "suse" if its marker file exists in @a install_path, tested
/// in this order; otherwise "centos".
[[nodiscard]] std::string distribution(const std::string& install_path);

/// kCentosCode, kSuseCode or kOtherCode.
[[nodiscard]] int os_code(const std::string& distribution);

/// A kernel as the server's directories name it.
struct KernelInfo {
  std::string version;  ///< release in upper case, shortened, such as "2.6.18-164"
  std::string flavour;  ///< "xen", "pae", "default", "desktop", "server", "generic" or empty
};

/// Describes the kernel with the release text @a release, as `uname -r` prints it.
/// @param[in,out] info  with kSuseCode, the flavour is unchanged if the release names none
void describe_kernel(int os_code, const std::string& release, KernelInfo& info);

/// The directory of a distribution's kernels: the flavour, if there is one, follows a dash.
[[nodiscard]] std::string kernel_distribution(const std::string& distribution,
                                              const std::string& flavour);

/// The processor family of the kernel modules for a machine name, as `uname -m` prints it: "x86"
/// for i386 and i686, "x64" for every other.
[[nodiscard]] std::string module_arch(const std::string& machine);

/// The processor family of the agent package for a machine name: "x64" for x86_64 in any letter
/// case, "x86" for every other.
[[nodiscard]] std::string package_arch(const std::string& machine);

}  // namespace host_identity
