// What the updater knows about a host before it asks a server.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace host {

struct HostFacts {
  std::string install_dir;
  bool install_dir_is_default = false;  ///< the file that names it cannot be read
  std::string family;                   ///< "centos", "suse" or "ubuntu"
  std::string family_marker;            ///< the marker file that decides it; empty if none does
  std::string machine;                  ///< as `uname -m` prints it; empty if `uname` fails
  std::string package_arch;             ///< "x64" or "x86": of the agent package
  std::string module_arch;              ///< likewise, of the kernel modules; empty without machine
  std::string kernel_release;           ///< as `uname -r` prints it
  std::string kernel_version;           ///< as the server's directories name it
  std::string flavour;                  ///< likewise; may be empty
};

/// Reads the facts about this host.
[[nodiscard]] HostFacts read_host_facts();

/// The members that all JSON output begins with: the schema's version and the host's identity.
[[nodiscard]] nlohmann::json host_json(const HostFacts& facts);

}  // namespace host
