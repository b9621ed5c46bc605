// Control of uname() in the unit test program.
#pragma once

#include <sys/utsname.h>

#include <optional>
#include <string>

namespace test_support {

/// While an object exists, uname() describes another host. Objects may be nested.
class FakeUname {
 public:
  /// A host with this machine name and kernel release, truncated to the size of the fields.
  FakeUname(const std::string& machine, const std::string& release);

  /// A host where uname() fails and does not write to its argument.
  static FakeUname failing() { return FakeUname(std::nullopt); }

  ~FakeUname();
  FakeUname(const FakeUname&) = delete;
  FakeUname& operator=(const FakeUname&) = delete;

  /// The host of the innermost object; nothing if uname() is to fail.
  /// @return false if there is no object
  [[nodiscard]] static bool current(std::optional<utsname>& host);

 private:
  explicit FakeUname(const std::optional<utsname>& host);

  std::optional<utsname> host_;
  const FakeUname* outer_;
};

}  // namespace test_support
