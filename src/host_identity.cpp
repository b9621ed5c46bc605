#include "host_identity.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <initializer_list>
#include <optional>

#include "server_paths.h"
#include "utility/file.h"

namespace host_identity {

namespace {

constexpr char kMachine64[] = "x86_64";

/// A version ends before its fourth character that is not a digit.
constexpr int kSeparatorsInVersion = 4;

std::string upper_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

/// The first of @a flavours that @a release contains in upper case; nothing if none does.
std::optional<std::string> find_flavour(const std::string& release,
                                        std::initializer_list<const char*> flavours) {
  for (const char* flavour : flavours) {
    if (release.find(upper_case(flavour)) != std::string::npos) return flavour;
  }
  return std::nullopt;
}

void set_flavour(int os_code, const std::string& release, std::string& flavour) {
  switch (os_code) {
    case kCentosCode:
      flavour = find_flavour(release, {"xen", "pae"}).value_or("");
      break;
    case kSuseCode:  // unlike the others, keeps the flavour if it finds none
      flavour = find_flavour(release, {"default", "desktop", "pae"}).value_or(flavour);
      break;
    default:
      flavour = find_flavour(release, {"server"}).value_or("generic");
      break;
  }
}

/// On SUSE the version ends before the flavour.
std::size_t suse_version_length(const std::string& release, const std::string& flavour) {
  if (flavour.empty()) return release.size();
  // Specified as 32-bit; npos still lies past the end.
  return static_cast<std::uint32_t>(release.find(upper_case("-" + flavour)));
}

std::size_t common_version_length(const std::string& release) {
  int separators = 0;
  for (std::size_t i = 0; i < release.size(); ++i) {
    const bool is_digit = release[i] >= '0' && release[i] <= '9';
    if (!is_digit && ++separators == kSeparatorsInVersion) return i;
  }
  return release.size();
}

}  // namespace

std::string distribution_marker(const std::string& install_path, const char* distribution) {
  return install_path + "/" + distribution;
}

std::string distribution(const std::string& install_path) {
  for (const char* marked : {kUbuntu, kSuse}) {
    if (utility::exists(distribution_marker(install_path, marked))) return marked;
  }
  return kCentos;
}

int os_code(const std::string& distribution) {
  if (distribution == kCentos) return kCentosCode;
  return distribution == kSuse ? kSuseCode : kOtherCode;
}

void describe_kernel(int os_code, const std::string& release, KernelInfo& info) {
  const std::string upper = upper_case(release);
  set_flavour(os_code, upper, info.flavour);
  const std::size_t length = os_code == kSuseCode ? suse_version_length(upper, info.flavour)
                                                  : common_version_length(upper);
  info.version = upper.substr(0, length);
}

std::string kernel_distribution(const std::string& distribution, const std::string& flavour) {
  return flavour.empty() ? distribution : distribution + "-" + flavour;
}

std::string module_arch(const std::string& machine) {
  return machine == "i386" || machine == "i686" ? server_paths::kX86 : server_paths::kX64;
}

std::string package_arch(const std::string& machine) {
  return ::strcasecmp(machine.c_str(), kMachine64) == 0 ? server_paths::kX64 : server_paths::kX86;
}

}  // namespace host_identity
