// What interrupted runs leave on a host.
#pragma once

#include <string>
#include <vector>

#include "update_type.h"

namespace host {

/// Paths of the work directory, and for soft the update marker, as far as they exist. While a run
/// of the type is at work they are in use.
[[nodiscard]] std::vector<std::string> leftovers(const std::string& install_dir, UpdateType type);

/// Paths of new versions of config.xml that were not put in place.
[[nodiscard]] std::vector<std::string> config_leftovers(const std::string& install_dir);

}  // namespace host
