// What the updater will use on a host: settings and addresses.
#pragma once

#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/terminal.h"
#include "host_facts.h"
#include "update_type.h"

namespace host {

/// The settings that the updater reads, by name.
struct Settings {
  bool readable = false;                                     ///< config.xml could be loaded
  std::map<std::string, std::optional<std::string>> values;  ///< nothing: not set

  /// The value as the updater sees it: empty if it is not set.
  [[nodiscard]] std::string value(const char* name) const;
};

[[nodiscard]] Settings read_settings(const std::string& install_dir);

/// An address that an update requests.
struct Request {
  UpdateType type;
  std::string url;
};

/// Every request of an update of each type that finds everything new, in order. The web server
/// program's have "{arch}" and "{version}" in place of what the command line names. A type whose
/// base address is not set requests nothing, except the rules.
[[nodiscard]] std::vector<Request> all_requests(const HostFacts& facts, const Settings& settings);

/// Shows facts, settings and requests to people.
void print_identity(std::ostream& out, const tools::Painter& paint, const HostFacts& facts,
                    const Settings& settings);

/// One object in one line.
void print_identity_json(std::ostream& out, const HostFacts& facts, const Settings& settings);

}  // namespace host
