// Control groups of systemd: whether systemd runs, and scopes for processes that outlive a unit.
#pragma once

#include <sys/types.h>

#include <vector>

namespace recover {

/// Whether systemd is the init system of this host.
[[nodiscard]] bool systemd_runs();

/// Whether this process belongs to a unit of this package. When the unit ends, systemd kills all
/// processes in it.
[[nodiscard]] bool is_in_own_unit();

/// Moves processes into a new scope of systemd and waits until they are there, at most 10 seconds.
/// They then survive the end of the unit that started them.
/// @return false if a live process is still elsewhere, for example because D-Bus is not running
[[nodiscard]] bool move_to_scope(const std::vector<pid_t>& pids);

/// Moves the other processes in the control group of this process, except its ancestors, into a
/// scope, and waits for the end of those that live only for a moment. Makes up to five attempts.
/// @return false if a process is still there
[[nodiscard]] bool move_companions_to_scope();

}  // namespace recover
