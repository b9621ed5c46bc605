#include "progress.h"

#include <gtest/gtest.h>

namespace {

TEST(Progress, TheLineKeepsItsLength) {
  EXPECT_EQ(publish::progress_line("Reading", 0, 10),
            "Reading [                              ]   0%");
  EXPECT_EQ(publish::progress_line("Reading", 5, 10),
            "Reading [###############               ]  50%");
  EXPECT_EQ(publish::progress_line("Reading", 10, 10),
            "Reading [##############################] 100%");
}

TEST(Progress, NoWorkIsShownAsDone) {
  EXPECT_EQ(publish::progress_line("Reading", 0, 0),
            "Reading [##############################] 100%");
}

TEST(Progress, ShowsNothingIfStderrIsNotATerminal) {
  const publish::ProgressBar bar("Reading", true);
  EXPECT_FALSE(bar.callback());
}

}  // namespace
