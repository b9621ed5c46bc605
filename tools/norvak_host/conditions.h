// Conditions of a host that would make a run of the updater misbehave.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "findings.h"
#include "host_facts.h"
#include "update_type.h"

namespace host {

/// Each check adds its findings. Those that return bool say whether a run could do its work.
class Conditions {
 public:
  Conditions(const HostFacts& facts, Findings& findings) : facts_(facts), findings_(findings) {}

  /// Checks what concerns runs of any type, and the leftovers and live updaters of @a type.
  /// @return false if nothing can be downloaded into the install directory
  [[nodiscard]] bool check_host(UpdateType type) const;

  /// Checks that there are builds for this machine.
  void check_machine(UpdateType type) const;

  /// Checks @a url, the base address in the setting @a name.
  /// @return false if it is empty
  [[nodiscard]] bool check_address(const char* name, const std::string& url) const;

  /// Whom a run would kill through the pid file.
  enum class Victim {
    kOthers,  ///< the agent, other processes, or none
    kRun      ///< the run itself
  };
  [[nodiscard]] Victim check_pid_file() const;

  /// Checks what installing an agent package needs.
  /// @return false if the package could not be unpacked
  [[nodiscard]] bool check_package_tools() const;

  /// Checks the directory of the file that a run replaces.
  /// @param suffix  path of the file below the install directory
  /// @param missing, not_writable  codes of the findings
  void check_target(const char* suffix, const char* missing, const char* not_writable) const;

  /// Checks that the path of the kernel version record is not truncated.
  void check_record() const;

  /// Checks the free space for the offered file @a url, which exists twice while it is moved.
  /// @param bytes  its size; nothing if the server does not report it
  /// @return false if it cannot even be downloaded
  [[nodiscard]] bool check_space(const std::string& url, std::optional<std::size_t> bytes) const;

 private:
  [[nodiscard]] std::string below(const char* suffix) const { return facts_.install_dir + suffix; }
  [[nodiscard]] bool check_writable(const char* code, const std::string& directory,
                                    tools::Severity severity, const char* consequence) const;
  void check_leftovers(UpdateType type) const;
  void check_running(UpdateType type) const;
  void check_pid(pid_t pid, const std::string& file) const;

  const HostFacts& facts_;
  Findings& findings_;
};

}  // namespace host
