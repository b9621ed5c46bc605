// Agent process control and file operations.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

/// Stateless helpers. None of them logs.
class CHelper {
 public:
  /// Sends SIGKILL to the process id in the agent's pid file, then deletes the file.
  ///
  /// Neither waits for the process to end nor checks that it is the agent. See read_pid for
  /// the dangerous contents of a pid file.
  ///
  /// @return 0; -1 if the pid file cannot be read or deleted, or the signal cannot be sent. In all
  ///         three cases the pid file remains.
  static int stop_norvak_agent();

  /// The limit that read_pid passes to utility::read_first_line.
  static constexpr int kPidLimit = 32;

  /// The process id in a pid file: the first line, at most 31 characters of it, converted
  /// as by `strtol`. A file without a number gives 0, which makes `kill` signal the caller's own
  /// process group; -1 makes it signal every process.
  /// @return nothing if the file cannot be read
  [[nodiscard]] static std::optional<pid_t> read_pid(const std::string& pid_path);

  /// Runs the agent's startup script through the shell and waits for it to end.
  /// @return always 0: the script's result is ignored
  static int start_norvak_agent();

  /// Moves a file by copying it, which works across file systems. The target gets the permissions
  /// of a newly created file.
  /// @return 0; -1 if the copy failed: the source is kept and there is no target, or still the old
  ///         target if it could not be deleted
  static int rename_file(const std::string& source, const std::string& target);

  /// Deletes a file, or a directory with everything in it. If @a path is a symbolic link to a file,
  /// the link is deleted; if it is a link to a directory, that directory is emptied.
  /// @return 0; -1 if @a path does not exist or could not be deleted completely
  static int remove_file(const std::string& path);

  /// Deletes a directory tree; symbolic links in it are deleted, not followed. Stops at the first
  /// failure.
  /// @return 0, or -1
  static int _remove_dir(const std::string& path);
};
