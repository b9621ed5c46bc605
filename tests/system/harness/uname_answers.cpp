// Preloaded into the updater, overrides uname(): the variables NORVAK_TEST_MACHINE and
// NORVAK_TEST_RELEASE replace these two fields, NORVAK_TEST_UNAME_FAILS makes the call fail.
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

// For the updater only, not for the programs that it starts.
__attribute__((constructor)) void keep_from_children() { (void)unsetenv("LD_PRELOAD"); }

template <std::size_t size>
void replace(char (&field)[size], const char* variable) {
  const char* answer = std::getenv(variable);
  if (answer != nullptr) (void)std::snprintf(field, size, "%s", answer);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int uname(struct utsname* name) noexcept {
  if (std::getenv("NORVAK_TEST_UNAME_FAILS") != nullptr) {
    errno = EFAULT;
    return -1;
  }
  if (syscall(SYS_uname, name) != 0) return -1;
  replace(name->machine, "NORVAK_TEST_MACHINE");
  replace(name->release, "NORVAK_TEST_RELEASE");
  return 0;
}
