#undef _FORTIFY_SOURCE  // its headers define read()

#include "faults.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>

using test_support::Fault;

namespace {

std::atomic<Fault> active_fault = Fault::kNone;
std::atomic<std::size_t> readable = 0;

bool is_regular_file(int fd) {
  struct stat status = {};
  return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

bool is_written_file(int fd) {
  return is_regular_file(fd) && (::fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY;
}

}  // namespace

// These replace the libraries' functions in this program. Their parameters cannot have the names in
// the headers, which are reserved.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

extern "C" ssize_t read(int fd, void* block, std::size_t size) {
  if (active_fault != Fault::kReadFails || !is_regular_file(fd))
    return ::syscall(SYS_read, fd, block, size);
  if (readable == 0 && size != 0) {
    errno = EIO;
    return -1;
  }
  const ssize_t count = ::syscall(SYS_read, fd, block, std::min<std::size_t>(size, readable));
  if (count > 0) readable -= static_cast<std::size_t>(count);
  return count;
}

extern "C" int close(int fd) {
  const bool fails = active_fault == Fault::kCloseFails && is_written_file(fd);
  const auto result = static_cast<int>(::syscall(SYS_close, fd));
  if (!fails) return result;
  errno = EIO;
  return -1;
}

extern "C" int access(const char* path, int mode) {
  if (active_fault != Fault::kAccessFails)
    return static_cast<int>(::syscall(SYS_access, path, mode));
  errno = EIO;
  return -1;
}

extern "C" dirent* readdir(DIR* dir) {
  using Readdir = dirent* (*)(DIR*);
  // The headers redirect readdir() to this name if file offsets have 64 bits.
  static const auto real_readdir = reinterpret_cast<Readdir>(::dlsym(RTLD_NEXT, "readdir64"));
  dirent* const entry = real_readdir(dir);
  if (active_fault == Fault::kNoEntryTypes && entry != nullptr) entry->d_type = DT_UNKNOWN;
  return entry;
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (active_fault == Fault::kNoMemory) return nullptr;
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (active_fault == Fault::kNoMemory) return nullptr;
  try {
    return ::operator new[](size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace test_support {

ScopedFault::ScopedFault(Fault fault, std::size_t readable_bytes) {
  readable = readable_bytes;
  active_fault = fault;
}

ScopedFault::~ScopedFault() { active_fault = Fault::kNone; }

}  // namespace test_support
