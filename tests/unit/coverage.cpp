// With NORVAK_COVERAGE: a process that ends by _exit() or becomes another program keeps its counts.
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
#include <gcov.h>  // knows C only
}

namespace {

void keep_counts() {
  rlimit file_size = {};
  const bool whole =
      ::getrlimit(RLIMIT_FSIZE, &file_size) == 0 && file_size.rlim_cur == RLIM_INFINITY;
  if (whole) __gcov_dump();  // a part of a file of counts would spoil those of all later processes
}

}  // namespace

// These stand in front of the library's functions for everything in this program. Their parameters
// cannot have the names of the headers, which are reserved.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

extern "C" void _exit(int status) {
  keep_counts();
  ::syscall(SYS_exit_group, status);
  __builtin_unreachable();
}

extern "C" int execv(const char* path, char* const* arguments) {
  keep_counts();
  __gcov_reset();  // what is counted from here on comes on top, should there be no such program
  return static_cast<int>(::syscall(SYS_execve, path, arguments, environ));
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)
