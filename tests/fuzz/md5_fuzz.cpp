// MD5 digests of a message in pieces, from a file and as a string, and the comparison of a
// downloaded module with its published digest.
// Input: sizes of the pieces, separated by blanks|published list, # is the digest|message
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <sstream>

#include "models.h"
#include "support.h"
#include "update_kernel.h"
#include "utility/md5.h"
#include "utility/md5wrapper.h"

namespace {

constexpr char kWorkDir[] = "/var/log/agent/update_norvak_kernel";
constexpr std::size_t kListLimit = 128;

CUpdateKernelImpl updater;

// ---- RFC 1321, implemented literally ----

std::string padded(std::string message) {
  const std::uint64_t bits = std::uint64_t{message.size()} * 8;
  message += '\x80';
  while (message.size() % 64 != 56) message += '\0';
  for (unsigned shift = 0; shift < 64; shift += 8) message += static_cast<char>(bits >> shift);
  return message;
}

std::uint32_t word_at(const std::string& bytes, std::size_t position) {
  std::uint32_t word = 0;
  for (std::size_t i = 4; i > 0; --i) {
    word = word << 8 | static_cast<std::uint8_t>(bytes[position + i - 1]);
  }
  return word;
}

struct Step {
  std::uint32_t mixed;
  std::size_t word;
};

Step step(std::size_t i, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  switch (i / 16) {
    case 0:
      return {(b & c) | (~b & d), i};
    case 1:
      return {(b & d) | (c & ~d), (5 * i + 1) % 16};
    case 2:
      return {b ^ c ^ d, (3 * i + 5) % 16};
    default:
      return {c ^ (b | ~d), 7 * i % 16};
  }
}

std::string model_digest(const std::string& message) {
  constexpr unsigned kShifts[4][4] = {
      {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
  std::uint32_t state[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  const std::string text = padded(message);
  for (std::size_t block = 0; block < text.size(); block += 64) {
    auto [a, b, c, d] = state;
    for (std::size_t i = 0; i < 64; ++i) {
      const auto sine = static_cast<std::uint32_t>(
          std::floor(4294967296.0 * std::fabs(std::sin(static_cast<double>(i + 1)))));
      const Step now = step(i, b, c, d);
      const std::uint32_t sum = a + now.mixed + sine + word_at(text, block + 4 * now.word);
      const unsigned shift = kShifts[i / 16][i % 4];
      a = d;
      d = c;
      c = b;
      b += sum << shift | sum >> (32 - shift);
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
  }
  std::string digest;
  for (const std::uint32_t word : state) {
    for (unsigned shift = 0; shift < 32; shift += 8) {
      constexpr char kDigits[] = "0123456789abcdef";
      digest += kDigits[word >> shift >> 4 & 15];
      digest += kDigits[word >> shift & 15];
    }
  }
  return digest;
}

// ---- The checks ----

std::string digest_in_pieces(const std::string& message, const std::string& sizes) {
  utility::MD5 md5;
  utility::MD5_CTX context;
  md5.MD5Init(&context);
  std::istringstream stream(sizes);
  std::size_t done = 0;
  for (std::size_t size = 0; stream >> size; done += size) {
    size = std::min(size, message.size() - done);
    const std::string piece =
        message.substr(done, size);  // a copy, so that sanitizers see reads past its end
    md5.MD5Update(&context, reinterpret_cast<const unsigned char*>(piece.data()),
                  static_cast<unsigned int>(size));
  }
  const std::string rest = message.substr(done);
  md5.MD5Update(&context, reinterpret_cast<const unsigned char*>(rest.data()),
                static_cast<unsigned int>(rest.size()));
  unsigned char digest[16] = {};
  md5.MD5Final(digest, &context);
  return utility::md5wrapper().convToString(digest);
}

/// Whether the first line of @a list is @a digest, apart from blanks around it.
bool names_digest(const std::string& list, const std::string& digest) {
  const string_list pieces = fuzz::line_pieces(list, kListLimit);
  std::string line = pieces.empty() ? "" : pieces.front();
  const std::string blanks = " \t\r\n";
  while (!line.empty() && blanks.find(line.front()) != std::string::npos) line.erase(0, 1);
  while (!line.empty() && blanks.find(line.back()) != std::string::npos) line.pop_back();
  return line == digest;
}

void check_module(std::string list, const std::string& message, const std::string& digest) {
  const std::size_t mark = list.find('#');
  if (mark != std::string::npos) list.replace(mark, 1, digest);
  const std::string module_path = std::string(kWorkDir) + "/kernel";
  fuzz::write_file(module_path, message);
  fuzz::write_file(std::string(kWorkDir) + "/md5", list);
  fuzz::check_equal(utility::md5wrapper().getHashFromFile(module_path), digest,
                    "a file has the digest of its bytes");
  fuzz::check_equal(updater.check_download_kernel_md5() ? 1 : 0, names_digest(list, digest) ? 1 : 0,
                    "a module is accepted when the list names its digest");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::enter_private_directory();
  return updater.init();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Fields fields(data, size);
  const std::string sizes = fields.next();
  const std::string list = fields.next();
  const std::string message = fields.rest();
  const std::string digest = model_digest(message);
  fuzz::check_equal(digest_in_pieces(message, sizes), digest,
                    "pieces have the digest of the whole");
  fuzz::check_equal(utility::md5wrapper().getHashFromString(message), digest,
                    "a string has the digest of its bytes");
  check_module(list, message, digest);
  return 0;
}
