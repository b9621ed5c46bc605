#include "sha256.h"

#include <fcntl.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "failure.h"
#include "utility/file.h"

namespace publish {

namespace {

constexpr std::size_t kBlockBytes = 128 * 1024;
constexpr std::chrono::milliseconds kProgressInterval(50);

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

/// @param block  kBlockBytes of scratch space
std::string sha256_of(const std::filesystem::path& path, std::vector<unsigned char>& block) {
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
  std::atomic<std::size_t> next = 0;
  const auto work = [&] {
    std::vector<unsigned char> block(kBlockBytes);
    for (std::size_t i = next++; i < files.size(); i = next++)
      digests[i] = sha256_of(files[i], block);
  };
  const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
  std::vector<std::future<void>> workers;
  for (std::size_t i = 0; i < std::min(processors, files.size()); ++i) {
    workers.push_back(std::async(std::launch::async, work));
  }
  for (std::future<void>& worker : workers) {
    while (worker.wait_for(kProgressInterval) != std::future_status::ready) {
      if (progress) progress(std::min(next.load(), files.size()), files.size());
    }
  }
  for (std::future<void>& worker : workers) worker.get();  // rethrows a Failure
  return digests;
}

}  // namespace publish
