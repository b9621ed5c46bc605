// The operations that touch the running agent and its files.
#pragma once

#include <string>

/// Agent process control and file operations. No state, no instances; nothing is logged here.
class CHelper {
 public:
  /// Sends SIGKILL to the process whose id stands in the agent's pid file, then deletes the file.
  ///
  /// Neither waits for the end of the process nor checks that it is the agent. The first line of
  /// the file, at most 31 characters, is read like `strtol` does: a file without a number names
  /// process 0, and with it the caller's own process group.
  ///
  /// @return 0; -1 when the pid file cannot be read or deleted, or the signal cannot be sent: the
  ///         pid file then stays
  static int stop_norvak_agent();

  /// Runs the agent's startup script through the shell and waits for its end.
  /// @return always 0: the script's result is ignored
  static int start_norvak_agent();

  /// Moves a file by copying it, which works across file systems. The target gets the permissions
  /// of a newly created file.
  /// @return 0; -1 when the copy failed: the source is kept, and there is no target (or, where it
  ///         could not be deleted, still the old one)
  static int rename_file(const std::string& source, const std::string& target);

  /// Deletes a file, or a directory with everything under it. A symbolic link as @a path is deleted
  /// when it leads to a file; when it leads to a directory, that directory is emptied.
  /// @return 0; -1 when @a path does not exist or could not be deleted whole
  static int remove_file(const std::string& path);

  /// Deletes a directory tree; symbolic links in it are deleted, not followed. Ends at the first
  /// failure.
  static int _remove_dir(const std::string& path);
};
