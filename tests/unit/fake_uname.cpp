#include "fake_uname.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace test_support {

namespace {

const FakeUname* innermost = nullptr;

template <std::size_t size>
void set_field(char (&field)[size], const std::string& text) {
  field[text.copy(field, size - 1)] = '\0';
}

utsname describe(const std::string& machine, const std::string& release) {
  utsname host = {};
  set_field(host.machine, machine);
  set_field(host.release, release);
  return host;
}

}  // namespace

FakeUname::FakeUname(const std::optional<utsname>& host) : host_(host), outer_(innermost) {
  innermost = this;
}

FakeUname::FakeUname(const std::string& machine, const std::string& release)
    : FakeUname(describe(machine, release)) {}

FakeUname::~FakeUname() { innermost = outer_; }

bool FakeUname::current(std::optional<utsname>& host) {
  if (innermost == nullptr) return false;
  host = innermost->host_;
  return true;
}

}  // namespace test_support

// Replaces the C library's function in this program.
extern "C" int uname(utsname* name) noexcept {
  std::optional<utsname> host;
  if (!test_support::FakeUname::current(host)) {
    return static_cast<int>(::syscall(SYS_uname, name));
  }
  if (!host) {
    errno = EFAULT;
    return -1;
  }
  *name = *host;
  return 0;
}
