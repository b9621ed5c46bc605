// Agent version texts and the server's version file. Nothing here logs.
//
// A version text has a prefix of six characters, which no comparison reads, followed by decimal
// numbers separated by dots: "abcdef3.1.10".
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "utility/string_list.h"

namespace version {

inline constexpr std::size_t kPrefixBytes = 6;

/// A version text keeps at most this many characters of the version file's first line.
inline constexpr std::size_t kMaxBytes = 63;

/// Splits @a text at the characters in @a separators and appends the fields, none of them empty, to
/// @a fields.
void split(const std::string& text, const std::string& separators, string_list& fields);

/// Whether @a offered is newer than @a installed. Fields are compared as numbers, up to the end of
/// the shorter version.
/// @throws std::out_of_range  a text has fewer than six characters
[[nodiscard]] bool is_newer(const std::string& offered, const std::string& installed);

/// Whether a file can be a version file: exactly one of its lines is not empty.
/// @return false as well if it cannot be opened
[[nodiscard]] bool is_version_file(const std::string& path);

/// The version in a version file: its first line without the line feed, cut after kMaxBytes.
/// @return nothing if the file cannot be read
[[nodiscard]] std::optional<std::string> read_version_file(const std::string& path);

}  // namespace version
