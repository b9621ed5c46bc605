// Helpers for the host: the agent's install directory, running programs, copying files.
#pragma once

#include <optional>
#include <string>

namespace utility {

/// Static helpers. None of them caches or logs anything.
///
/// The program itself calls only get_norvak_path. The other operations complete the interface that
/// the agent's components share.
class CUnixHelper {
 public:
  /// The first line of this file names the install directory; without the file, it is the default.
  static constexpr char kInstallPathFile[] = "/var/log/version_control";
  static constexpr char kDefaultInstallPath[] = "/usr/local/norvak_agent";

  /// The install directory that @a file names: its first line, at most 1022 characters, without its
  /// line feed and otherwise unchanged.
  /// @return nothing if the file cannot be read
  [[nodiscard]] static std::optional<std::string> read_install_path(const std::string& file);

  /// The agent's install directory: the first line of /var/log/version_control, at most 1022
  /// characters, without its line feed and otherwise unchanged. /usr/local/norvak_agent if that
  /// file cannot be read; "" if it is empty. Every call reads the file.
  [[nodiscard]] static std::string get_norvak_path();

  /// Runs a program with arguments, without a shell, and waits for it to end.
  ///
  /// The command line is split at blanks. A quoted argument (single and double quotes close each
  /// other) that contains blanks keeps them and loses its quotes. One without blanks keeps its
  /// quotes, as does a command line that is a single argument.
  ///
  /// @return the wait status as `waitpid` stores it, with exit code 127 if the program cannot be
  ///         executed; -1 if @a command_line is null, PATH is needed but not set, or no child could
  ///         be started or waited for
  [[nodiscard]] static int keld_system(const char* command_line);

  /// Splits @a text in place at each of the characters in @a delimiters.
  ///
  /// White space before every piece and at the end of the text is removed, so a run of blank
  /// delimiters counts as one. A piece that begins with two equal quotes is empty. In pieces that
  /// contain a line feed, quotes and line feeds become blanks, and the piece is trimmed again; this
  /// is skipped if @a delimiters is one character that does not occur in the text.
  ///
  /// @param[out] fields  the pieces, which point into @a text; must have room for one more than the
  ///                     text has delimiter characters
  /// @param[out] count   the number of pieces, at least 1
  /// @return false, with nothing changed, if @a text is null
  static bool parse(char* text, const char* delimiters, char** fields, int* count);

  /// Strips leading and trailing white space (`isspace`) in place.
  /// @return @a text
  static char* trim_space(char* text);

  /// Searches the directories of PATH for the program @a command. A command that begins with "/" is
  /// not searched for or checked.
  ///
  /// @param[out] resolved  at least kResolvedBytes long: the program's path; empty if no directory
  ///                       contains it, so that executing it fails
  /// @return 1; 0 if an argument is null, PATH is not set or an absolute path does not fit
  static int get_command_obs_path(const char* command, char* resolved);

  /// Size of the buffer for get_command_obs_path, terminating zero included.
  static constexpr int kResolvedBytes = 255;

  /// Replaces @a target with a copy of @a source. A read error counts as the end of the file.
  /// @return 1; 0 if the target could not be replaced or written completely: then there is none, or
  ///         still the old one if it could not be deleted
  [[nodiscard]] static int cp_file(const char* source, const char* target);

  /// cp_file, then deletes the source. If the copy fails, the source is kept.
  /// @return as cp_file
  [[nodiscard]] static int replace_file(const char* source, const char* target);

  /// Runs a command line through the shell and waits for it to end.
  /// @return true if the shell ran and no signal ended it, whatever its exit code
  [[nodiscard]] static bool system(const char* command);
};

}  // namespace utility
