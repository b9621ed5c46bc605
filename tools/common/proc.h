// Reading /proc.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tools {

/// The path of @a name in the directory of a process.
[[nodiscard]] std::string process_path(pid_t pid, const std::string& name);

/// The ids of all processes.
[[nodiscard]] std::vector<pid_t> all_processes();

/// The id of the parent; 0 if the process has none or has ended.
[[nodiscard]] pid_t parent_of(pid_t pid);

/// Whether a SIGKILL is pending for the process, so that it is about to end.
[[nodiscard]] bool is_being_killed(pid_t pid);

/// The arguments, of which the first is the program's name; empty if they cannot be read.
[[nodiscard]] std::vector<std::string> arguments_of(pid_t pid);

/// The target of a link in /proc; empty, with errno set, if it cannot be read. If the file was
/// removed, the kernel appends " (deleted)" to its path.
[[nodiscard]] std::string read_proc_link(const std::string& link);

/// @a path, a result of read_proc_link, without " (deleted)".
[[nodiscard]] std::string without_deleted(std::string path);

}  // namespace tools
