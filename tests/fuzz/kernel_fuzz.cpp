// From the host's kernel release and machine to the directory of the update server.
// Input: distribution code, or f if uname() fails|old flavour|machine|release
#include <optional>

#include "fake_uname.h"
#include "models.h"
#include "support.h"
#include "update_kernel.h"

namespace {

using KernelInfo = CUpdateKernelImpl::KernelInfo;

constexpr std::size_t kUnameBytes = 64;  // the capacity of a field of struct utsname

CUpdateKernelImpl updater;

std::string upper(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

std::string flavour_of(const std::string& release, int os_code, const std::string& before) {
  const auto has = [&](const char* word) { return release.find(word) != std::string::npos; };
  if (os_code == 1) return has("XEN") ? "xen" : has("PAE") ? "pae" : "";
  if (os_code == 2) {
    return has("DEFAULT") ? "default" : has("DESKTOP") ? "desktop" : has("PAE") ? "pae" : before;
  }
  return has("SERVER") ? "server" : "generic";
}

/// The length of @a release before its fourth character that is not a digit.
std::size_t digits_and_three_others(const std::string& release) {
  std::size_t length = 0;
  for (int others = 0; length < release.size(); ++length) {
    if (std::string("0123456789").find(release[length]) == std::string::npos) ++others;
    if (others == 4) break;
  }
  return length;
}

KernelInfo model(const std::string& host_release, int os_code, const std::string& before) {
  const std::string release = upper(host_release);
  const std::string flavour = flavour_of(release, os_code, before);
  if (os_code != 2) return {release.substr(0, digits_and_three_others(release)), flavour};
  if (flavour.empty()) return {release, flavour};
  return {release.substr(0, release.find("-" + upper(flavour))), flavour};
}

void check_version(int os_code, const std::string& before, const KernelInfo& expected) {
  KernelInfo info = {"version before", before};
  updater.get_local_kernel_version(os_code, info);
  fuzz::check_equal(info.version, expected.version, "the version is the model's");
  fuzz::check_equal(info.flavour, expected.flavour, "the flavour is the model's");
}

void check_urls(const KernelInfo& info, const std::string& arch) {
  std::string directory = "http://host/kernels/suse";
  if (!info.flavour.empty()) directory += "-" + info.flavour;
  directory += "/" + arch + "/" + info.version + "/tessel_linux";
  const auto url = [&](int kind) {
    return updater.build_url_string(kind, "http://host", "suse", arch, info, "tessel_linux");
  };
  fuzz::check_equal(url(0), directory + "/md5", "the MD5 list's address is the model's");
  fuzz::check_equal(url(1), directory + "/tessel_linux.ko", "the module's address is the model's");
}

void check_unknown_host(int os_code, const std::string& before) {
  const auto host = test_support::FakeUname::failing();
  check_version(os_code, before, {"version before", before});
  fuzz::check_equal(updater.get_local_os_arch(), "", "a host that cannot be asked has no family");
}

void check_known_host(int os_code, const std::string& before, const std::string& machine,
                      const std::string& release) {
  const test_support::FakeUname host(machine, release);
  const KernelInfo expected = model(release, os_code, before);
  const std::string arch = machine == "i386" || machine == "i686" ? "x86" : "x64";
  check_version(os_code, before, expected);
  fuzz::check_equal(updater.get_local_os_arch(), arch, "the processor family is the model's");
  check_urls(expected, arch);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Fields fields(data, size);
  const std::string code = fields.next();
  const int os_code = fuzz::leading_int(code);
  const std::string before = fields.next();
  const std::string machine = fuzz::before_nul(fields.next()).substr(0, kUnameBytes);
  const std::string release = fuzz::before_nul(fields.rest()).substr(0, kUnameBytes);
  if (code.find('f') == std::string::npos) {
    check_known_host(os_code, before, machine, release);
  } else {
    check_unknown_host(os_code, before);
  }
  return 0;
}
