// MD5 digests as text, the form in which the update server publishes them.
#pragma once

#include <memory>
#include <string>

#include "utility/md5.h"

namespace utility {

/// Digests of files and strings. A digest text is exactly 32 lower-case hexadecimal digits.
class md5wrapper {
 public:
  md5wrapper();

  /// Digest text of the whole file; "-1", which equals no digest, if it cannot be opened. A read
  /// error counts as the end of the file: the caller's comparison then fails.
  std::string getHashFromFile(const std::string& filename);

  /// Digest text of all bytes of @a text, zero bytes included.
  std::string getHashFromString(const std::string& text);

  /// Implements getHashFromString.
  std::string hashit(const std::string& text);

  /// The digest text of 16 digest bytes.
  std::string convToString(const unsigned char* digest);

 private:
  std::unique_ptr<MD5> md5_;  ///< null if memory ran out: every digest is then "-1"
};

}  // namespace utility
