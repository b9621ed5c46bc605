// The check of each area of a server tree: what hosts request for one type of update.
#pragma once

#include <functional>
#include <vector>

#include "check.h"
#include "check_tree_reader.h"

namespace publish {

/// A part of the check that may run at the same time as others.
using CheckTask = std::function<void(Findings&)>;

/// The agent software: version file and packages.
void add_agent_tasks(const TreeReader& tree, const CheckOptions& options,
                     std::vector<CheckTask>& tasks);

/// Kernel modules: a task for each kernel. Findings about its parent directories are added to
/// @a findings immediately.
void add_kernel_tasks(const TreeReader& tree, std::vector<CheckTask>& tasks, Findings& findings);

/// Builds of the web server program.
void add_nginx_tasks(const TreeReader& tree, std::vector<CheckTask>& tasks, Findings& findings);

/// The protection rules.
void add_rules_tasks(const TreeReader& tree, std::vector<CheckTask>& tasks);

/// The finding for a digest list that the updater does not accept for a file.
/// @param list, file  paths on the server; both exist
[[nodiscard]] tools::Finding explain_digest_list(const TreeReader& tree, const std::string& list,
                                                 const std::string& file);

}  // namespace publish
