// The MD5 message-digest algorithm of RFC 1321, with the operation names of its reference code.
#pragma once

#include <cstddef>
#include <cstdint>

namespace utility {

/// State of a digest in progress.
struct MD5_CTX {
  std::uint32_t state[4];    ///< the words A, B, C, D
  std::uint64_t count;       ///< bits processed so far, modulo 2^64
  unsigned char buffer[64];  ///< input that does not fill a block yet
};

/// The digest primitive. Stateless: the caller's MD5_CTX holds the state.
class MD5 {
 public:
  /// Begins a new digest.
  void MD5Init(MD5_CTX* context);

  /// Adds @a length bytes to the message. May be called any number of times.
  void MD5Update(MD5_CTX* context, const unsigned char* input, unsigned int length);

  /// Writes the digest's 16 bytes and clears @a context.
  void MD5Final(unsigned char digest[16], MD5_CTX* context);

 private:
  static void MD5Transform(std::uint32_t state[4], const unsigned char* input, std::size_t blocks);
  static void Encode(unsigned char* output, const std::uint32_t* input, std::size_t words);
  static std::uint32_t Decode(const unsigned char* input);
  static void MD5_memcpy(unsigned char* output, const unsigned char* input, std::size_t length);
  static void MD5_memset(void* output, int value, std::size_t length);
};

}  // namespace utility
