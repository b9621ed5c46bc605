// Plain models of what the C library does for the code under test, written without it.
#pragma once

#include <cstddef>
#include <string>

#include "utility/string_list.h"

namespace fuzz {

/// Whether @a c is white space to `isspace` in the "C" locale.
bool is_space(char c);

/// What `strtol` to the base 10 makes of @a text.
long leading_long(const std::string& text);

/// leading_long() cut to its low 32 bits.
int leading_int(const std::string& text);

/// The texts that `fgets` with @a limit would give one after the other for a file that holds
/// @a bytes: at most limit - 1 bytes each, at most one line feed, at the end. A NUL hides the
/// rest of its piece.
string_list line_pieces(const std::string& bytes, std::size_t limit);

/// The first of line_pieces(), without its line feed; empty when there is none.
std::string first_line(const std::string& bytes, std::size_t limit);

}  // namespace fuzz
