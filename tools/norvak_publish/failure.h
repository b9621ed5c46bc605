// How the publisher's functions report that they cannot continue.
#pragma once

#include <stdexcept>
#include <string>

namespace publish {

/// Process exit statuses; 64 is EX_USAGE of <sysexits.h>.
enum ExitStatus { kDone = 0, kErrorsFound = 1, kFailed = 2, kUsage = 64 };

/// A step failed, which ends the command: main() prints the text and exits with kFailed.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The command line is invalid in a way that the parser does not detect: main() exits with kUsage.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Throws a Failure that names @a path and the reason in errno.
[[noreturn]] void fail_with_errno(const std::string& what, const std::string& path);

}  // namespace publish
