// String helpers: trimming, comment stripping, splitting, replacement, numbers as decimal text.
#pragma once

#include <string>

#include "utility/string_list.h"

namespace utility {

/// Static helpers over std::string. A string passed by non-const reference is changed in place. In
/// the trim operations white space means exactly blank, tab, carriage return and line feed.
///
/// The program calls only trim and to_int. The other operations complete the interface that the
/// agent's components share.
class CStr {
 public:
  static void trim(std::string& s);
  static void left_trim(std::string& s);
  static void right_trim(std::string& s);

  /// Erases the leading and the trailing run of @a c; the left and right variants erase one of
  /// them.
  static void trim_byte(char c, std::string& s);
  static void left_trim_byte(char c, std::string& s);
  static void right_trim_byte(char c, std::string& s);

  /// Cuts @a s at the first @a marker, if it occurs.
  static void trim_remark(const std::string& marker, std::string& s);

  /// Removes every span from an @a open to the next @a close, both included. An unclosed @a open is
  /// kept with everything after it. An empty @a close changes nothing.
  static void trim_remark(const std::string& open, const std::string& close, std::string& s);

  /// Appends the words of @a text, separated by any white space of the "C" locale, to @a words.
  static void ext_line(string_list& words, const std::string& text);

  /// Splits @a text at every @a delimiter and appends the pieces that are not empty to @a pieces.
  /// With an empty delimiter the whole text is one piece.
  static void ext_line(const std::string& delimiter, string_list& pieces, const std::string& text);

  /// Replaces every @a from with @a to, left to right. Inserted text is not searched again. If
  /// @a from is empty, nothing changes.
  static void string_replace(std::string& s, const std::string& from, const std::string& to);

  /// The decimal number at the start of @a s, after white space: 0 if there is none, the nearest
  /// representable number if it is out of range.
  static unsigned long long atoull(const std::string& s);
  static long long atoll(const std::string& s);
  static long atol(const std::string& s);

  static std::string ulltoa(unsigned long long n);
  static std::string lltoa(long long n);

  /// Base-10 `strtol`, narrowed to the low 32 bits: leading blanks and a sign are allowed,
  /// conversion stops at the first character that is not a digit, text without a number gives 0.
  static int to_int(const char* text);
};

}  // namespace utility
