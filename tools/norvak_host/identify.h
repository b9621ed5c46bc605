// The settings that the updater uses on a host, and the addresses that it requests.
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

/// Reads the settings from config.xml, as the updater does.
[[nodiscard]] Settings read_settings(const std::string& install_dir);

/// An address that an update requests.
struct Request {
  UpdateType type;
  std::string url;
};

/// The requests of an update of each type, in order, if it finds everything new. Those for the web
/// server program contain "{arch}" and "{version}", because the command line decides these. A type
/// whose base address is not set requests nothing; the rules are an exception.
[[nodiscard]] std::vector<Request> all_requests(const HostFacts& facts, const Settings& settings);

/// Prints facts, settings and requests for people.
void print_identity(std::ostream& out, const tools::Painter& paint, const HostFacts& facts,
                    const Settings& settings);

/// Prints the same as a JSON object in one line.
void print_identity_json(std::ostream& out, const HostFacts& facts, const Settings& settings);

}  // namespace host
