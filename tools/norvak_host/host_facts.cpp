#include "host_facts.h"

#include <sys/utsname.h>

#include <nlohmann/json.hpp>

#include "host_identity.h"
#include "utility/file.h"
#include "utility/unix_helper.h"

namespace host {

namespace {

constexpr int kSchemaVersion = 1;

}  // namespace

HostFacts read_host_facts() {
  using utility::CUnixHelper;
  HostFacts facts;
  facts.install_dir = CUnixHelper::get_norvak_path();
  facts.install_dir_is_default = !CUnixHelper::read_install_path(CUnixHelper::kInstallPathFile);

  facts.family = host_identity::distribution(facts.install_dir);
  const std::string marker =
      host_identity::distribution_marker(facts.install_dir, facts.family.c_str());
  if (utility::exists(marker)) facts.family_marker = marker;

  struct utsname system = {};
  const bool known = ::uname(&system) == 0;
  facts.package_arch = host_identity::package_arch(system.machine);
  if (!known) return facts;
  facts.machine = system.machine;
  facts.module_arch = host_identity::module_arch(system.machine);
  facts.kernel_release = system.release;
  host_identity::KernelInfo kernel;
  host_identity::describe_kernel(host_identity::os_code(facts.family), system.release, kernel);
  facts.kernel_version = kernel.version;
  facts.flavour = kernel.flavour;
  return facts;
}

nlohmann::json host_json(const HostFacts& facts) {
  return {{"schema", kSchemaVersion},
          {"install_dir", facts.install_dir},
          {"family", facts.family},
          {"machine", facts.machine},
          {"package_arch", facts.package_arch},
          {"module_arch", facts.module_arch},
          {"kernel_release", facts.kernel_release},
          {"kernel_version", facts.kernel_version},
          {"flavour", facts.flavour}};
}

}  // namespace host
