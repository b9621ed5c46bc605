// Helpers for the host: the agent's install directory, running programs, copying files.
#pragma once

#include <string>

namespace utility {

/// Static helpers. Nothing is cached between calls, and nothing is logged.
class CUnixHelper {
 public:
  /// The agent's install directory: the first line of /var/log/version_control, at most 1022 of its
  /// characters, as it stands there. The default, when that file cannot be read, is
  /// /usr/local/norvak_agent. The file is read afresh at every call; an empty one gives "".
  [[nodiscard]] static std::string get_norvak_path();

  /// Runs a program with arguments, without a shell, and waits for its end.
  ///
  /// The command line is split at blanks. A part between quotes (single and double quotes end each
  /// other) keeps its blanks and loses its quotes; one without blanks keeps its quotes, and so does
  /// a command line that is one single part.
  ///
  /// @return the wait status as `waitpid` stores it: exit code 127 when the program cannot be
  ///         executed; -1 when @a command_line is null, no program could be looked for (PATH is
  ///         not set), or no child could be started or waited for
  [[nodiscard]] static int keld_system(const char* command_line);

  /// Splits @a text in place at each of the characters in @a delimiters.
  ///
  /// White space in front of every piece and at the end of the text is removed, so that a run of
  /// blank delimiters counts as one. A
  /// piece that begins with two equal quotes is empty. In pieces that contain a line feed, quotes
  /// and line feeds become blanks before a second trimming; not so when @a delimiters is one
  /// character that does not occur in the text.
  ///
  /// @param[out] fields  the pieces, which lie in @a text; there may be one more than there are
  ///                     delimiter characters in it, and the caller provides for them
  /// @param[out] count   how many there are, at least 1
  /// @return false, with nothing done, when @a text is null
  static bool parse(char* text, const char* delimiters, char** fields, int* count);

  /// Strips leading and trailing white space (`isspace`) in place.
  /// @return @a text
  static char* trim_space(char* text);

  /// Looks for the program @a command in the directories of PATH. A command that begins with "/" is
  /// taken as it is.
  ///
  /// @param[out] resolved  at least kResolvedBytes long: the program's path; empty when no
  /// directory
  ///                       holds such a program, which is found out when it is executed
  /// @return 1; 0 when an argument is null, PATH is not set or an absolute path does not fit
  static int get_command_obs_path(const char* command, char* resolved);

  /// Size of the buffer for get_command_obs_path, terminating zero included.
  static constexpr int kResolvedBytes = 255;

  /// Replaces @a target by a copy of @a source. A read error ends the copy like the end of the
  /// file.
  /// @return 1; 0 when the target could not be replaced or written whole: there is no target then
  [[nodiscard]] static int cp_file(const char* source, const char* target);

  /// cp_file, after which the source is deleted. A failed copy keeps the source.
  [[nodiscard]] static int replace_file(const char* source, const char* target);

  /// Runs a command line through the shell and waits for its end.
  /// @return true when the shell ran and no signal ended it, whatever the exit code
  [[nodiscard]] static bool system(const char* command);
};

}  // namespace utility
