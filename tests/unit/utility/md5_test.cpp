#include "utility/md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using utility::MD5;
using utility::MD5_CTX;
using Bytes = std::vector<unsigned char>;
using Digest = std::array<unsigned char, 16>;
using State = std::array<std::uint32_t, 4>;

constexpr State kInitialState = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
constexpr std::size_t kBlockBytes = 64;

/// A plain and slow implementation for comparison: one loop over the 64 steps, with a computed sine
/// table, over the whole padded message.
namespace textbook {

void add_block(State& state, const unsigned char* block) {
  constexpr unsigned kShifts[4][4] = {
      {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
  auto [a, b, c, d] = state;
  for (unsigned step = 0; step < 64; ++step) {
    const std::array<std::uint32_t, 4> mixed = {(b & c) | (~b & d), (b & d) | (c & ~d), b ^ c ^ d,
                                                c ^ (b | ~d)};
    const std::array<unsigned, 4> words = {step, 5 * step + 1, 3 * step + 5, 7 * step};
    const unsigned char* const word = block + std::ptrdiff_t{4} * (words[step / 16] % 16);
    std::uint32_t sum = a + mixed[step / 16];
    sum += static_cast<std::uint32_t>(std::floor(std::fabs(std::sin(step + 1.0)) * 4294967296.0));
    for (unsigned byte = 0; byte < 4; ++byte) sum += std::uint32_t{word[byte]} << (8 * byte);
    const unsigned shift = kShifts[step / 16][step % 4];
    a = d;
    d = c;
    c = b;
    b += (sum << shift) | (sum >> (32 - shift));
  }
  state = {state[0] + a, state[1] + b, state[2] + c, state[3] + d};
}

/// The digest of the rest of a message, after @a bits_before bits (whole blocks) led to @a state.
Digest digest(Bytes message, State state = kInitialState, std::uint64_t bits_before = 0) {
  const std::uint64_t bits = bits_before + 8 * std::uint64_t{message.size()};
  message.push_back(0x80);
  while (message.size() % kBlockBytes != 56) message.push_back(0);
  for (unsigned byte = 0; byte < 8; ++byte)
    message.push_back(static_cast<unsigned char>(bits >> (8 * byte)));
  for (std::size_t at = 0; at < message.size(); at += kBlockBytes)
    add_block(state, message.data() + at);
  Digest result = {};
  for (unsigned i = 0; i < result.size(); ++i)
    result[i] = static_cast<unsigned char>(state[i / 4] >> (8 * (i % 4)));
  return result;
}

}  // namespace textbook

Bytes bytes_of(const std::string& text) { return {text.begin(), text.end()}; }

/// A pseudo-random message.
Bytes message_of(std::size_t size) {
  Bytes message(size);
  std::uint32_t random = 1;
  for (unsigned char& byte : message) {
    random = random * 1664525 + 1013904223;
    byte = static_cast<unsigned char>(random >> 24);
  }
  return message;
}

void update(MD5_CTX& context, const unsigned char* data, std::size_t size) {
  MD5().MD5Update(&context, data, static_cast<unsigned int>(size));
}

Digest final_digest(MD5_CTX& context) {
  Digest digest = {};
  MD5().MD5Final(digest.data(), &context);
  return digest;
}

/// The digest of @a message, passed in pieces that end at @a cuts, in ascending order.
Digest digest_in_pieces(const Bytes& message, const std::vector<std::size_t>& cuts) {
  MD5_CTX context;
  MD5().MD5Init(&context);
  std::size_t done = 0;
  for (const std::size_t cut : cuts) {
    update(context, message.data() + done, cut - done);
    done = cut;
  }
  update(context, message.data() + done, message.size() - done);
  return final_digest(context);
}

Digest digest_of(const Bytes& message) { return digest_in_pieces(message, {}); }

std::string hex(const Digest& digest) {
  std::string text;
  for (const unsigned char byte : digest) {
    std::array<char, 3> digits{};
    (void)std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned>(byte));
    text += digits.data();
  }
  return text;
}

TEST(Md5, DigestsTheTestSuiteOfTheRfc) {
  struct Vector {
    const char* message;
    const char* digest;
  };
  constexpr Vector kVectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"}};
  for (const Vector& vector : kVectors) {
    EXPECT_EQ(hex(digest_of(bytes_of(vector.message))), vector.digest) << vector.message;
    EXPECT_EQ(hex(textbook::digest(bytes_of(vector.message))), vector.digest) << vector.message;
  }
}

TEST(Md5, AgreesWithTheTextbookForEveryLengthUpTo300) {
  for (std::size_t size = 0; size <= 300; ++size) {
    const Bytes message = message_of(size);
    EXPECT_EQ(hex(digest_of(message)), hex(textbook::digest(message))) << size;
  }
}

TEST(Md5, AgreesWithTheTextbookForLongMessages) {
  for (const std::size_t size : {std::size_t{4096}, std::size_t{65535}, std::size_t{100003}}) {
    const Bytes message = message_of(size);
    EXPECT_EQ(hex(digest_of(message)), hex(textbook::digest(message))) << size;
  }
}

TEST(Md5, EveryCutIntoTwoPiecesGivesTheSameDigest) {
  const Bytes message = message_of(200);
  const std::string whole = hex(textbook::digest(message));
  for (std::size_t cut = 0; cut <= message.size(); ++cut) {
    EXPECT_EQ(hex(digest_in_pieces(message, {cut})), whole) << cut;
  }
}

TEST(Md5, AnyCutsGiveTheSameDigest) {
  const Bytes message = message_of(1000);
  const std::string whole = hex(textbook::digest(message));
  std::uint32_t random = 7;
  for (int round = 0; round < 200; ++round) {
    std::vector<std::size_t> cuts(static_cast<std::size_t>(round % 20));
    for (std::size_t& cut : cuts) {
      random = random * 1664525 + 1013904223;
      cut = (random >> 8) % (message.size() + 1);
    }
    std::sort(cuts.begin(), cuts.end());
    EXPECT_EQ(hex(digest_in_pieces(message, cuts)), whole) << testing::PrintToString(cuts);
  }
}

TEST(Md5, SingleBytesGiveTheSameDigest) {
  const Bytes message = message_of(150);
  std::vector<std::size_t> cuts(message.size());
  for (std::size_t i = 0; i < cuts.size(); ++i) cuts[i] = i;
  EXPECT_EQ(digest_in_pieces(message, cuts), textbook::digest(message));
}

TEST(Md5, AnUpdateWithoutBytesChangesNothing) {
  MD5_CTX context;
  MD5().MD5Init(&context);
  update(context, nullptr, 0);
  const Bytes message = message_of(70);
  update(context, message.data(), message.size());
  update(context, nullptr, 0);
  update(context, message.data(), 0);
  EXPECT_EQ(final_digest(context), textbook::digest(message));
}

TEST(Md5, TheMessageMayBeUnaligned) {
  const Bytes message = message_of(130);
  for (std::size_t offset = 1; offset < 16; ++offset) {
    Bytes shifted(offset, 0);
    shifted.insert(shifted.end(), message.begin(), message.end());
    MD5_CTX context;
    MD5().MD5Init(&context);
    update(context, shifted.data() + offset, message.size());
    EXPECT_EQ(final_digest(context), textbook::digest(message)) << offset;
  }
}

/// Starts with a count of whole blocks, because a message of that length would take seconds.
void expect_right_count(std::uint64_t bits_before) {
  const Bytes message = message_of(150);
  for (const std::size_t cut : {0U, 1U, 63U, 64U, 65U, 150U}) {
    MD5_CTX context;
    MD5().MD5Init(&context);
    context.count = bits_before;
    update(context, message.data(), cut);
    update(context, message.data() + cut, message.size() - cut);
    EXPECT_EQ(context.count, bits_before + 1200);
    EXPECT_EQ(final_digest(context), textbook::digest(message, kInitialState, bits_before)) << cut;
  }
}

TEST(Md5, TheBitCountCarriesBeyond32Bits) {
  constexpr std::uint64_t kCarry = std::uint64_t{1} << 32;
  expect_right_count(kCarry - 512);
  expect_right_count(kCarry - 1024);
  expect_right_count(kCarry);
  expect_right_count(5 * kCarry - 1536);
}

TEST(Md5, TheBitCountIsTakenModulo64Bits) { expect_right_count(std::uint64_t{0} - 512); }

TEST(Md5, ADigestIsSixteenBytesAndNoMore) {
  std::array<unsigned char, 18> guarded{};
  guarded.fill(0xaa);
  MD5_CTX context;
  MD5().MD5Init(&context);
  MD5().MD5Final(guarded.data() + 1, &context);
  EXPECT_EQ(guarded.front(), 0xaa);
  EXPECT_EQ(guarded.back(), 0xaa);
  Digest digest = {};
  std::copy_n(guarded.begin() + 1, digest.size(), digest.begin());
  EXPECT_EQ(hex(digest), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Md5, TheEndClearsTheState) {
  const Bytes secret = message_of(100);
  MD5_CTX context;
  MD5().MD5Init(&context);
  update(context, secret.data(), secret.size());
  (void)final_digest(context);
  EXPECT_EQ(context.count, 0U);
  EXPECT_TRUE(std::all_of(std::begin(context.state), std::end(context.state),
                          [](std::uint32_t word) { return word == 0; }));
  EXPECT_TRUE(std::all_of(std::begin(context.buffer), std::end(context.buffer),
                          [](unsigned char byte) { return byte == 0; }));
}

TEST(Md5, AStateCanBeReused) {
  MD5_CTX context;
  MD5().MD5Init(&context);
  const Bytes first = message_of(100);
  update(context, first.data(), first.size());
  MD5().MD5Init(&context);
  EXPECT_EQ(hex(final_digest(context)), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Md5, DigestsInProgressAreIndependent) {
  MD5 md5;
  MD5_CTX first;
  MD5_CTX second;
  const Bytes one = message_of(90);
  const Bytes other = message_of(170);
  md5.MD5Init(&first);
  md5.MD5Init(&second);
  md5.MD5Update(&first, one.data(), 50);
  md5.MD5Update(&second, other.data(), 100);
  md5.MD5Update(&first, one.data() + 50, 40);
  md5.MD5Update(&second, other.data() + 100, 70);
  EXPECT_EQ(final_digest(second), textbook::digest(other));
  EXPECT_EQ(final_digest(first), textbook::digest(one));
}

}  // namespace
