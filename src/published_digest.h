// The digests and identification lines that the update server publishes, compared with files on the
// host. Paths are those of downloaded or installed files. Nothing here logs.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace published_digest {

/// How much of a first line verify_module(), verify_rules(), nginx_identification() and
/// same_nginx_build() read.
inline constexpr std::size_t kMaxLineBytes = 127;

/// What the digest list of a kernel module says about the installed module.
enum class ModuleState {
  kUnreadable,  ///< the list cannot be opened
  kAbnormal,    ///< the list has several lines
  kDiffers,     ///< the module is not installed, has another digest, or the list is empty
  kCurrent,     ///< the list's only line is exactly the digest, without white space around it
};

/// Compares a digest list with the installed module. As for is_list() and announces_new_rules(), a
/// line of more than 1023 bytes, its line feed included, counts as several.
[[nodiscard]] ModuleState compare_module(const std::string& list_path,
                                         const std::string& module_path);

/// Whether the first line of the list, at most 127 bytes of it, is the module's digest. White space
/// around it is ignored.
[[nodiscard]] bool verify_module(const std::string& list_path, const std::string& module_path);

/// The digest of the rules that the agent runs: the first line of @a record_path, at most 1023
/// bytes of it, without its line feed.
/// @return empty if there is no such file; nothing if it cannot be read
[[nodiscard]] std::optional<std::string> current_rules(const std::string& record_path);

/// Whether the file can be a digest list: it has exactly one line.
/// @return false as well if it cannot be opened
[[nodiscard]] bool is_list(const std::string& list_path);

/// Whether the list announces rules other than @a current: it has exactly one line, which differs.
[[nodiscard]] bool announces_new_rules(const std::string& list_path, const std::string& current);

/// Whether the first line of the list, at most 127 bytes of it, is exactly the digest of the rules.
/// White space or capital letters make it differ.
[[nodiscard]] bool verify_rules(const std::string& list_path, const std::string& rules_path);

/// What identifies a build of the web server program: the first line of the file @a path, at most
/// 127 bytes of it, with its line feed; empty if the file cannot be opened.
[[nodiscard]] std::string nginx_identification(const std::string& path);

/// Whether the installed and the published build of the web server program are the same: their
/// first lines, at most 127 bytes each, are equal, line feeds included. A file that cannot be
/// opened counts as empty; without @a installed_path they differ.
[[nodiscard]] bool same_nginx_build(const std::string& installed_path,
                                    const std::string& published_path);

}  // namespace published_digest
