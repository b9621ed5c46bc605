#include "draft.h"

#include <gtest/gtest.h>
#include <utime.h>

#include <ctime>

#include "files.h"
#include "test_support.h"

namespace {

using publish::Draft;
using test_support::read_file;
using test_support::ScratchDirectory;
using test_support::write_file;

class DraftTest : public testing::Test {
 protected:
  /// A published file of @a age seconds.
  void publish(const std::string& path, const std::string& contents, std::time_t age) const {
    write_file(scratch / path, contents);
    const std::time_t time = std::time(nullptr) - age;
    const struct utimbuf times = {time, time};
    ASSERT_EQ(::utime((scratch / path).c_str(), &times), 0);
  }

  [[nodiscard]] std::time_t time_of(const std::string& path) const {
    return publish::modification_time(scratch / path);
  }

  ScratchDirectory scratch;
  Draft draft{scratch / "draft", {scratch / "1", scratch / "2"}};
};

TEST_F(DraftTest, PutsFilesWithTheirDirectories) {
  write_file(scratch / "source", "contents");
  draft.put_copy("/a/b/file", scratch / "source");
  draft.put_text("/a/text", "text\n");
  EXPECT_EQ(read_file(scratch / "draft/a/b/file"), "contents");
  EXPECT_EQ(read_file(scratch / "draft/a/text"), "text\n");
  EXPECT_EQ(draft.changes(), (std::vector<std::string>{"a/b/file", "a/text"}));
}

TEST_F(DraftTest, AnUnchangedFileIsNoChange) {
  write_file(scratch / "source", "contents");
  publish("draft/file", "contents", 1000);
  const std::time_t before = time_of("draft/file");
  draft.put_copy("/file", scratch / "source");
  draft.put_text("/file", "contents");
  EXPECT_TRUE(draft.changes().empty());
  EXPECT_EQ(time_of("draft/file"), before);
}

TEST_F(DraftTest, AChangedFileIsOneSecondNewerThanAnyEarlierVersion) {
  publish("1/file", "one", -100);  // served before, and then rolled back
  publish("2/file", "two", 0);
  publish::link_tree(scratch / "2", scratch / "draft");
  draft.put_text("/file", "new");
  EXPECT_EQ(time_of("draft/file"), time_of("1/file") + 1);
}

TEST_F(DraftTest, AChangedFileHasTheCurrentTimeIfEarlierVersionsAreOld) {
  publish("1/file", "one", 100);
  const std::time_t now = std::time(nullptr);
  draft.put_text("/file", "new");
  EXPECT_GE(time_of("draft/file"), now);
  EXPECT_LE(time_of("draft/file"), std::time(nullptr));
}

}  // namespace
