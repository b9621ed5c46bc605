// Conditions of a host that would make a run of the updater misbehave.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "findings.h"
#include "host_facts.h"
#include "update_type.h"

namespace host {

/// Reads the host and adds what it finds. Each operation returns whether a run could do its work.
class Conditions {
 public:
  Conditions(const HostFacts& facts, Findings& findings) : facts_(facts), findings_(findings) {}

  /// What concerns runs of any type, and leftovers of @a type.
  [[nodiscard]] bool check_host(UpdateType type) const;

  /// The machine's name against the builds that exist.
  void check_machine(UpdateType type) const;

  /// The base address @a url in the setting @a name, which must not be empty.
  [[nodiscard]] bool check_address(const char* name, const std::string& url) const;

  /// What `kill` would do with the pid file's contents.
  enum class Kill {
    kAgent,   ///< ends a process, or nothing
    kUpdater  ///< ends the run itself
  };
  [[nodiscard]] Kill check_pid_file() const;

  /// What the installation of an agent package needs.
  [[nodiscard]] bool check_package_tools() const;

  /// The directory of the file at @a suffix below the install directory, into which a new one is
  /// moved. The codes are those of the findings.
  void check_target(const char* suffix, const char* missing, const char* not_writable) const;

  /// Whether the kernel version record is where it belongs.
  void check_record() const;

  /// Free space for an offered file. While it is moved, it is there twice.
  /// @param bytes  nothing if the server does not tell
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
