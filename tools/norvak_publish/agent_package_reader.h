// The properties of an agent package that decide what it does to a host.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace publish {

struct AgentPackage {
  /// Why the file cannot be unpacked; empty if it can. If it cannot, the other members describe
  /// what was read before the damage.
  std::string damage;
  /// The archive has its end mark. tar does not require it: a package that was truncated between
  /// two members unpacks without an error.
  bool has_end = false;
  /// A regular file "update" at the top level.
  bool has_script = false;
  /// The first line of the script names an interpreter and ends with a carriage return.
  bool script_has_carriage_return = false;
  /// The version that the script records; nothing for packages that norvak_publish did not make.
  std::optional<std::string> version;
  /// Members whose path or link target leads out of the package.
  std::vector<std::string> outside;

  /// A file config.xml in the package.
  struct Config {
    std::string member;
    bool is_readable = false;                   ///< well-formed, and not too large
    std::vector<std::string> missing_settings;  ///< names of those that the updater reads
  };
  std::vector<Config> configs;
};

/// Reads the tar archive @a path to its end, in blocks: memory does not grow with its size.
/// Archives that are compressed count as damaged, because unpacking them needs more than tar on the
/// host.
[[nodiscard]] AgentPackage read_agent_package(const std::string& path);

}  // namespace publish
