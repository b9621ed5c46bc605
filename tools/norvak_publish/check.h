// Finds what would hurt a host in a server tree.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "common/finding.h"

namespace publish {

struct CheckOptions {
  std::string previous_version;  ///< the agent version published before; empty when not known
  std::filesystem::path fleet;   ///< the hosts to serve; empty for none
  std::function<void(std::size_t done, std::size_t total)> progress;  ///< may be empty
};

/// Checks the plain tree @a root (the directory that the web server serves). Changes nothing.
/// @return the findings, ordered by file and code
[[nodiscard]] std::vector<tools::Finding> check_tree(const std::filesystem::path& root,
                                                     const CheckOptions& options);

}  // namespace publish
