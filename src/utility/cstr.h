// String helpers: trimming, comment stripping, splitting, replacement, numbers as decimal text.
#pragma once

#include <string>

#include "utility/string_list.h"

namespace utility {

/// Static helpers over std::string. A string passed by non-const reference is changed in place.
///
/// White space means exactly blank, tab, carriage return and line feed in the trim operations.
class CStr {
 public:
  static void trim(std::string& s);
  static void left_trim(std::string& s);
  static void right_trim(std::string& s);

  /// Erases the leading and the trailing run of @a c. The _byte variants of left and right trimming
  /// erase one of the two.
  static void trim_byte(char c, std::string& s);
  static void left_trim_byte(char c, std::string& s);
  static void right_trim_byte(char c, std::string& s);

  /// Cuts @a s at the first @a marker, if it occurs.
  static void trim_remark(const std::string& marker, std::string& s);

  /// Removes every span from an @a open to the next @a close, both included. An @a open that is not
  /// closed stays, with what follows it. An empty @a close changes nothing.
  static void trim_remark(const std::string& open, const std::string& close, std::string& s);

  /// Appends the words of @a text, separated by any white space of the "C" locale, to @a words.
  static void ext_line(string_list& words, const std::string& text);

  /// Splits @a text at every @a delimiter and appends the pieces that are not empty to @a pieces.
  /// With an empty delimiter the whole text is one piece.
  static void ext_line(const std::string& delimiter, string_list& pieces, const std::string& text);

  /// Replaces every @a from by @a to, left to right; what was inserted is not searched again.
  static void string_replace(std::string& s, const std::string& from, const std::string& to);

  /// The decimal number at the start of @a s, after white space. 0 when there is none; the nearest
  /// representable number when it is out of range.
  static unsigned long long atoull(const std::string& s);
  static long long atoll(const std::string& s);
  static long atol(const std::string& s);

  static std::string ulltoa(unsigned long long n);
  static std::string lltoa(long long n);

  /// `strtol` to the base 10, narrowed to the low 32 bits: leading blanks and a sign are allowed,
  /// conversion stops at the first character that is no digit, text without a number gives 0.
  static int to_int(const char* text);
};

}  // namespace utility
