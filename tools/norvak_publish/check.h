// Finds what would hurt a host in a server tree.
#pragma once

#include <filesystem>
#include <string>

#include "check_findings.h"
#include "parallel.h"

namespace publish {

struct CheckOptions {
  std::string previous_version{};         ///< the agent version published before; empty: unknown
  std::filesystem::path fleet{};          ///< the hosts to serve; empty for none
  Progress progress{};                    ///< may be empty
  std::filesystem::path previous_root{};  ///< the tree published before; empty: unknown
};

/// Checks the plain tree @a root (the directory that the web server serves). Changes nothing. Uses
/// all processors; memory does not grow with the size of files, the rules apart.
/// @return the findings, ordered by file and code
/// @throws Failure  the tree or the fleet cannot be read
[[nodiscard]] Findings check_tree(const std::filesystem::path& root, const CheckOptions& options);

}  // namespace publish
