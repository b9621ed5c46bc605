#include "sha256.h"

#include <fcntl.h>
#include <openssl/evp.h>

#include <array>
#include <memory>

#include "failure.h"
#include "utility/file.h"

namespace publish {

namespace {

constexpr std::size_t kBlockBytes = std::size_t{128} * 1024;

struct DigestCleanup {
  void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
};
using DigestPtr = std::unique_ptr<EVP_MD_CTX, DigestCleanup>;

std::string hexadecimal(const unsigned char* bytes, std::size_t size) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4U];
    text += kDigits[bytes[i] & 0xfU];
  }
  return text;
}

std::string sha256_of(const std::filesystem::path& path) {
  thread_local std::vector<unsigned char> block(kBlockBytes);
  const utility::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) fail_with_errno("cannot read", path);
  const DigestPtr context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    throw Failure("cannot compute SHA-256 digests");
  }
  for (;;) {
    const ssize_t size = utility::read_some(file.get(), block.data(), block.size());
    if (size < 0) fail_with_errno("cannot read", path);
    if (size == 0) break;
    (void)EVP_DigestUpdate(context.get(), block.data(), static_cast<std::size_t>(size));
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  (void)EVP_DigestFinal_ex(context.get(), digest.data(), &size);
  return hexadecimal(digest.data(), size);
}

}  // namespace

std::vector<std::string> sha256(const std::vector<std::filesystem::path>& files,
                                const Progress& progress) {
  std::vector<std::string> digests(files.size());
  in_parallel(
      files.size(), [&](std::size_t i) { digests[i] = sha256_of(files[i]); }, progress);
  return digests;
}

}  // namespace publish
