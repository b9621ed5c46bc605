#include "failure.h"

#include <cerrno>
#include <system_error>

namespace publish {

void fail_with_errno(const std::string& what, const std::string& path) {
  const int reason = errno;
  throw Failure(what + " " + path + ": " + std::generic_category().message(reason));
}

}  // namespace publish
