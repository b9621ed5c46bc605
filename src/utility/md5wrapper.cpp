#include "utility/md5wrapper.h"

#include <fcntl.h>

#include <algorithm>
#include <memory>
#include <new>

#include "utility/file.h"

namespace utility {

namespace {

constexpr char kNoDigest[] = "-1";
constexpr std::size_t kDigestBytes = 16;
constexpr std::size_t kReadBytes = std::size_t{64} * 1024;

}  // namespace

md5wrapper::md5wrapper() : md5_(new (std::nothrow) MD5) {}

std::string md5wrapper::getHashFromFile(const std::string& filename) {
  const Descriptor file(::open(filename.c_str(), O_RDONLY | O_CLOEXEC));
  const std::unique_ptr<unsigned char[]> block(new (std::nothrow) unsigned char[kReadBytes]);
  if (!file || !md5_ || !block) return kNoDigest;

  MD5_CTX context;
  md5_->MD5Init(&context);
  for (;;) {
    const ssize_t count = read_some(file.get(), block.get(), kReadBytes);
    if (count <= 0) break;
    md5_->MD5Update(&context, block.get(), static_cast<unsigned int>(count));
  }
  unsigned char digest[kDigestBytes] = {};
  md5_->MD5Final(digest, &context);
  return convToString(digest);
}

std::string md5wrapper::getHashFromString(const std::string& text) { return hashit(text); }

std::string md5wrapper::hashit(const std::string& text) {
  if (!md5_) return kNoDigest;
  MD5_CTX context;
  md5_->MD5Init(&context);
  // A string may be longer than one update accepts.
  constexpr std::size_t kLongestUpdate = std::size_t{1} << 29;
  const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t done = 0; done < text.size();) {
    const std::size_t length = std::min(kLongestUpdate, text.size() - done);
    md5_->MD5Update(&context, bytes + done, static_cast<unsigned int>(length));
    done += length;
  }
  unsigned char digest[kDigestBytes] = {};
  md5_->MD5Final(digest, &context);
  return convToString(digest);
}

std::string md5wrapper::convToString(const unsigned char* digest) {
  constexpr char kHexDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * kDigestBytes);
  for (std::size_t i = 0; i < kDigestBytes; ++i) {
    text += kHexDigits[digest[i] >> 4];
    text += kHexDigits[digest[i] & 0x0f];
  }
  return text;
}

}  // namespace utility
