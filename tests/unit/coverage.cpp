// With NORVAK_COVERAGE: saves the counters of a process that calls _exit() or an exec function.
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
#include <gcov.h>  // lacks extern "C"
}

namespace {

void keep_counts() {
  rlimit file_size = {};
  const bool whole =
      ::getrlimit(RLIMIT_FSIZE, &file_size) == 0 && file_size.rlim_cur == RLIM_INFINITY;
  if (whole) __gcov_dump();  // a truncated file would make all later processes fail to merge theirs
}

}  // namespace

// These replace the library's functions in this program. Their parameters cannot have the names in
// the headers, which are reserved.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

extern "C" void _exit(int status) {
  keep_counts();
  ::syscall(SYS_exit_group, status);
  __builtin_unreachable();
}

extern "C" int execv(const char* path, char* const* arguments) {
  keep_counts();
  __gcov_reset();  // if the call fails, the process continues and counts from zero
  return static_cast<int>(::syscall(SYS_execve, path, arguments, environ));
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)
