// How the publisher's functions report that they cannot go on.
#pragma once

#include <stdexcept>
#include <string>

namespace publish {

/// Process exit statuses; 64 is EX_USAGE of <sysexits.h>.
enum ExitStatus { kDone = 0, kErrorsFound = 1, kCouldNotDoIt = 2, kUsage = 64 };

/// A step failed and the command ends: main() prints the text and exits with kCouldNotDoIt.
/// Objects on the way clean up in their destructors.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The command line makes no sense in a way that the parser cannot see: kUsage.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A Failure that names @a path and the reason in errno.
[[noreturn]] void fail_with_errno(const std::string& what, const std::string& path);

}  // namespace publish
