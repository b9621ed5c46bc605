#include "failure.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(Failure, NamesWhatWasTriedThePathAndTheReason) {
  try {
    errno = ENOSPC;
    publish::fail_with_errno("cannot write", "/srv/tree/file");
    FAIL();
  } catch (const publish::Failure& failure) {
    EXPECT_STREQ(failure.what(), "cannot write /srv/tree/file: No space left on device");
  }
}

}  // namespace
