// The update log, the program's only channel of diagnostics.
#pragma once

/// Appends to `<install directory>/runlog/update.log`. The file is opened and closed for every
/// line, and every line is one write in append mode, so that several runs can share the file
/// without mixing their lines. Failures are silent: if the directory is missing or the file cannot
/// be written, the lines are lost.
class CUpdateLog {
 public:
  /// Appends "[<local time>]\t\t<message>\n". The time has the form 2026-01-31 23:59:59. Messages
  /// are truncated to 2047 bytes. Takes no lock.
  static void write_log(const char* format, ...) __attribute__((format(printf, 1, 2)));

  /// Appends the empty line that ends a run. Waits for an exclusive lock on the file.
  static void write_space();
};
