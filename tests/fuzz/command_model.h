// A model of how command lines are split into arguments and programs are looked for.
#pragma once

#include <optional>
#include <string>

#include "utility/string_list.h"

namespace fuzz {

std::string without_outer_space(std::string text);

/// The fields that `parse` is to find in @a text.
string_list command_fields(const std::string& text, const std::string& delimiters);

/// @a command with the blanks between quotes replaced by line feeds.
std::string with_protected_blanks(std::string command);

/// The path of the program @a command when PATH is @a path, nothing when PATH is not set. Empty
/// when there is no such program; nothing, too, for an absolute path that is too long.
std::optional<std::string> program_path(const std::string& command,
                                        const std::optional<std::string>& path);

/// The PATH of this process: @a path, or none. Its text is kept in one place, as `putenv` wants it,
/// because `setenv` would keep every text that was ever set.
void set_path(const std::optional<std::string>& path);

}  // namespace fuzz
