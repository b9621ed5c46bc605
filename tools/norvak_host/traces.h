// What interrupted runs leave on a host.
#pragma once

#include <string>
#include <vector>

#include "update_type.h"

namespace host {

/// Paths of the work directory and, for soft, of the update marker, if they exist. During a run of
/// the type they are in use, not left over.
[[nodiscard]] std::vector<std::string> leftovers(const std::string& install_dir, UpdateType type);

/// Paths of new versions of config.xml that were not renamed to it.
[[nodiscard]] std::vector<std::string> config_leftovers(const std::string& install_dir);

}  // namespace host
