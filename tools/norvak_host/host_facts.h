// What the updater knows about a host before it asks a server.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace host {

struct HostFacts {
  std::string install_dir;
  bool install_dir_is_default = false;  ///< the file that names it cannot be read
  std::string family;                   ///< "centos", "suse" or "ubuntu"
  std::string family_marker;            ///< the marker file it follows from; empty without one
  std::string machine;         ///< as `uname -m` prints it; empty if the host does not tell
  std::string package_arch;    ///< "x64" or "x86": of the agent package
  std::string module_arch;     ///< likewise, of the kernel modules; empty without machine
  std::string kernel_release;  ///< as `uname -r` prints it
  std::string kernel_version;  ///< as the server's directories name it
  std::string flavour;         ///< likewise; may be empty
};

/// Asks this host.
[[nodiscard]] HostFacts read_host_facts();

/// An object with a member for each fact and the version of the schema, the frame of all output in
/// JSON.
[[nodiscard]] nlohmann::json host_json(const HostFacts& facts);

}  // namespace host
