#include "utility/md5.h"

#include <algorithm>
#include <cstring>

namespace utility {

namespace {

using Word = std::uint32_t;

constexpr std::size_t kBlockBytes = 64;
constexpr std::size_t kLengthOffset = 56;  // a block's last 8 bytes hold the message length

constexpr unsigned char kPadding[kBlockBytes] = {0x80};

template <int kBits>
inline Word rotate_left(Word x) {
  return (x << kBits) | (x >> (32 - kBits));
}

/// Optimisation barrier: prevents the compiler from reassociating the sum. Emits no instruction.
inline void keep_apart(Word& sum) {
#ifdef __GNUC__  // clang as well
  asm("" : "+r"(sum));
#else
  (void)sum;
#endif
}

// One operation of each round: RFC 1321, section 3.4. `b` is the result of the previous operation,
// so it limits the speed: terms that need `b` are added last.
template <int kBits>
inline void FF(Word& a, Word b, Word c, Word d, Word x, Word t) {
  a += x + t;
  keep_apart(a);
  a += ((c ^ d) & b) ^ d;
  a = rotate_left<kBits>(a) + b;
}

// The two halves of G have no bit in common, so they can be added separately: only the second waits
// for `b`.
template <int kBits>
inline void GG(Word& a, Word b, Word c, Word d, Word x, Word t) {
  a += x + t;
  keep_apart(a);
  a += ~d & c;
  keep_apart(a);
  a += d & b;
  a = rotate_left<kBits>(a) + b;
}

template <int kBits>
inline void HH(Word& a, Word b, Word c, Word d, Word x, Word t) {
  a += x + t;
  keep_apart(a);
  a += (c ^ d) ^ b;
  a = rotate_left<kBits>(a) + b;
}

template <int kBits>
inline void II(Word& a, Word b, Word c, Word d, Word x, Word t) {
  a += x + t;
  keep_apart(a);
  a += (~d | b) ^ c;
  a = rotate_left<kBits>(a) + b;
}

}  // namespace

void MD5::MD5Init(MD5_CTX* context) {
  *context = MD5_CTX{{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, 0, {}};
}

void MD5::MD5Update(MD5_CTX* context, const unsigned char* input, unsigned int length) {
  const std::size_t buffered = (context->count / 8) % kBlockBytes;
  context->count += std::uint64_t{length} * 8;

  std::size_t rest = length;
  if (buffered != 0) {
    const std::size_t taken = std::min(kBlockBytes - buffered, rest);
    MD5_memcpy(context->buffer + buffered, input, taken);
    if (buffered + taken < kBlockBytes) return;
    MD5Transform(context->state, context->buffer, 1);
    input += taken;
    rest -= taken;
  }
  const std::size_t blocks = rest / kBlockBytes;
  MD5Transform(context->state, input, blocks);
  MD5_memcpy(context->buffer, input + blocks * kBlockBytes, rest % kBlockBytes);
}

void MD5::MD5Final(unsigned char digest[16], MD5_CTX* context) {
  const Word bits[2] = {static_cast<Word>(context->count & 0xffffffff),
                        static_cast<Word>(context->count >> 32)};
  unsigned char length[8];
  Encode(length, bits, 2);

  const std::size_t buffered = (context->count / 8) % kBlockBytes;
  const std::size_t padding =
      (buffered < kLengthOffset ? 0 : kBlockBytes) + kLengthOffset - buffered;
  MD5Update(context, kPadding, static_cast<unsigned int>(padding));
  MD5Update(context, length, sizeof length);

  Encode(digest, context->state, 4);
  MD5_memset(context, 0, sizeof *context);
}

void MD5::MD5Transform(Word state[4], const unsigned char* input, std::size_t blocks) {
  Word a = state[0];
  Word b = state[1];
  Word c = state[2];
  Word d = state[3];
  for (; blocks != 0; --blocks, input += kBlockBytes) {
    // Decoded at each use: with an array of words, compilers generate slower code.
    const auto x = [input](std::size_t word) { return Decode(input + 4 * word); };
    const Word before[] = {a, b, c, d};

    FF<7>(a, b, c, d, x(0), 0xd76aa478);
    FF<12>(d, a, b, c, x(1), 0xe8c7b756);
    FF<17>(c, d, a, b, x(2), 0x242070db);
    FF<22>(b, c, d, a, x(3), 0xc1bdceee);
    FF<7>(a, b, c, d, x(4), 0xf57c0faf);
    FF<12>(d, a, b, c, x(5), 0x4787c62a);
    FF<17>(c, d, a, b, x(6), 0xa8304613);
    FF<22>(b, c, d, a, x(7), 0xfd469501);
    FF<7>(a, b, c, d, x(8), 0x698098d8);
    FF<12>(d, a, b, c, x(9), 0x8b44f7af);
    FF<17>(c, d, a, b, x(10), 0xffff5bb1);
    FF<22>(b, c, d, a, x(11), 0x895cd7be);
    FF<7>(a, b, c, d, x(12), 0x6b901122);
    FF<12>(d, a, b, c, x(13), 0xfd987193);
    FF<17>(c, d, a, b, x(14), 0xa679438e);
    FF<22>(b, c, d, a, x(15), 0x49b40821);

    GG<5>(a, b, c, d, x(1), 0xf61e2562);
    GG<9>(d, a, b, c, x(6), 0xc040b340);
    GG<14>(c, d, a, b, x(11), 0x265e5a51);
    GG<20>(b, c, d, a, x(0), 0xe9b6c7aa);
    GG<5>(a, b, c, d, x(5), 0xd62f105d);
    GG<9>(d, a, b, c, x(10), 0x02441453);
    GG<14>(c, d, a, b, x(15), 0xd8a1e681);
    GG<20>(b, c, d, a, x(4), 0xe7d3fbc8);
    GG<5>(a, b, c, d, x(9), 0x21e1cde6);
    GG<9>(d, a, b, c, x(14), 0xc33707d6);
    GG<14>(c, d, a, b, x(3), 0xf4d50d87);
    GG<20>(b, c, d, a, x(8), 0x455a14ed);
    GG<5>(a, b, c, d, x(13), 0xa9e3e905);
    GG<9>(d, a, b, c, x(2), 0xfcefa3f8);
    GG<14>(c, d, a, b, x(7), 0x676f02d9);
    GG<20>(b, c, d, a, x(12), 0x8d2a4c8a);

    HH<4>(a, b, c, d, x(5), 0xfffa3942);
    HH<11>(d, a, b, c, x(8), 0x8771f681);
    HH<16>(c, d, a, b, x(11), 0x6d9d6122);
    HH<23>(b, c, d, a, x(14), 0xfde5380c);
    HH<4>(a, b, c, d, x(1), 0xa4beea44);
    HH<11>(d, a, b, c, x(4), 0x4bdecfa9);
    HH<16>(c, d, a, b, x(7), 0xf6bb4b60);
    HH<23>(b, c, d, a, x(10), 0xbebfbc70);
    HH<4>(a, b, c, d, x(13), 0x289b7ec6);
    HH<11>(d, a, b, c, x(0), 0xeaa127fa);
    HH<16>(c, d, a, b, x(3), 0xd4ef3085);
    HH<23>(b, c, d, a, x(6), 0x04881d05);
    HH<4>(a, b, c, d, x(9), 0xd9d4d039);
    HH<11>(d, a, b, c, x(12), 0xe6db99e5);
    HH<16>(c, d, a, b, x(15), 0x1fa27cf8);
    HH<23>(b, c, d, a, x(2), 0xc4ac5665);

    II<6>(a, b, c, d, x(0), 0xf4292244);
    II<10>(d, a, b, c, x(7), 0x432aff97);
    II<15>(c, d, a, b, x(14), 0xab9423a7);
    II<21>(b, c, d, a, x(5), 0xfc93a039);
    II<6>(a, b, c, d, x(12), 0x655b59c3);
    II<10>(d, a, b, c, x(3), 0x8f0ccc92);
    II<15>(c, d, a, b, x(10), 0xffeff47d);
    II<21>(b, c, d, a, x(1), 0x85845dd1);
    II<6>(a, b, c, d, x(8), 0x6fa87e4f);
    II<10>(d, a, b, c, x(15), 0xfe2ce6e0);
    II<15>(c, d, a, b, x(6), 0xa3014314);
    II<21>(b, c, d, a, x(13), 0x4e0811a1);
    II<6>(a, b, c, d, x(4), 0xf7537e82);
    II<10>(d, a, b, c, x(11), 0xbd3af235);
    II<15>(c, d, a, b, x(2), 0x2ad7d2bb);
    II<21>(b, c, d, a, x(9), 0xeb86d391);

    a += before[0];
    b += before[1];
    c += before[2];
    d += before[3];
  }
  state[0] = a;
  state[1] = b;
  state[2] = c;
  state[3] = d;
}

// Encode and Decode spell out the algorithm's little-endian byte order, so they work on every host.
// On little-endian hosts compilers turn them into plain moves.
void MD5::Encode(unsigned char* output, const Word* input, std::size_t words) {
  for (std::size_t i = 0; i < words; ++i) {
    for (std::size_t byte = 0; byte < 4; ++byte) {
      output[4 * i + byte] = static_cast<unsigned char>(input[i] >> (8 * byte));
    }
  }
}

std::uint32_t MD5::Decode(const unsigned char* input) {
  return Word{input[0]} | Word{input[1]} << 8 | Word{input[2]} << 16 | Word{input[3]} << 24;
}

void MD5::MD5_memcpy(unsigned char* output, const unsigned char* input, std::size_t length) {
  if (length != 0) std::memcpy(output, input, length);
}

void MD5::MD5_memset(void* output, int value, std::size_t length) {
  std::memset(output, value, length);
}

}  // namespace utility
