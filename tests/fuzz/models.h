// Models of C library functions that the code under test uses.
#pragma once

#include <cstddef>
#include <string>

#include "utility/string_list.h"

namespace fuzz {

/// Whether @a c is white space to `isspace` in the "C" locale.
bool is_space(char c);

/// The result of `strtol` with base 10 for @a text.
long leading_long(const std::string& text);

/// The low 32 bits of leading_long().
int leading_int(const std::string& text);

/// The texts that repeated calls of `fgets` with @a limit return for a file with @a bytes: at most
/// limit - 1 bytes each, with at most one line feed, at the end. A NUL hides the rest of its piece.
string_list line_pieces(const std::string& bytes, std::size_t limit);

/// The first of line_pieces(), without its line feed; empty if there is none.
std::string first_line(const std::string& bytes, std::size_t limit);

}  // namespace fuzz
