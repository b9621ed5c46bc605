// For LD_PRELOAD: no file system supports unnamed files (O_TMPFILE).
#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <cstdarg>

namespace {

using Openat = int (*)(int, const char*, int, ...);

int open_unless_unnamed(const char* symbol, int directory, const char* path, int flags,
                        va_list arguments) {
  if ((flags & O_TMPFILE) == O_TMPFILE) {
    errno = EOPNOTSUPP;
    return -1;
  }
  const auto real = reinterpret_cast<Openat>(dlsym(RTLD_NEXT, symbol));
  return real(directory, path, flags, (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int openat(int directory, const char* path,
                                                             int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int result = open_unless_unnamed("openat", directory, path, flags, arguments);
  va_end(arguments);
  return result;
}

// The same function in programs with 64-bit file offsets.
extern "C" __attribute__((visibility("default"))) int openat64(int directory, const char* path,
                                                               int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int result = open_unless_unnamed("openat64", directory, path, flags, arguments);
  va_end(arguments);
  return result;
}
