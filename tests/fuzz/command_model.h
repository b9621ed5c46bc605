// A model of how command lines are split and programs are looked up.
#pragma once

#include <optional>
#include <string>

#include "utility/string_list.h"

namespace fuzz {

std::string without_outer_space(std::string text);

/// The fields that `parse` must find in @a text.
string_list command_fields(const std::string& text, const std::string& delimiters);

/// @a command with the blanks between quotes replaced by line feeds.
std::string with_protected_blanks(std::string command);

/// The path of the program @a command for the PATH @a path; empty if there is no such program.
/// Nothing if PATH is not set, or for an absolute path that is too long.
std::optional<std::string> program_path(const std::string& command,
                                        const std::optional<std::string>& path);

/// Sets or removes the PATH of this process. Uses one buffer and `putenv`, because `setenv` never
/// frees old values.
void set_path(const std::optional<std::string>& path);

}  // namespace fuzz
