// The answers that uname() gives in the unit test program.
#pragma once

#include <sys/utsname.h>

#include <optional>
#include <string>

namespace test_support {

/// While it lives, uname() describes another host than the real one. They may be nested.
class FakeUname {
 public:
  /// A host with this machine name and kernel release, cut to what fits, and nothing else.
  FakeUname(const std::string& machine, const std::string& release);

  /// A host that cannot be asked: uname() fails and leaves the record alone.
  static FakeUname failing() { return FakeUname(std::nullopt); }

  ~FakeUname();
  FakeUname(const FakeUname&) = delete;
  FakeUname& operator=(const FakeUname&) = delete;

  /// The host of the innermost object; nothing when it cannot be asked.
  /// @return false when there is no such object
  [[nodiscard]] static bool current(std::optional<utsname>& host);

 private:
  explicit FakeUname(const std::optional<utsname>& host);

  std::optional<utsname> host_;
  const FakeUname* outer_;
};

}  // namespace test_support
