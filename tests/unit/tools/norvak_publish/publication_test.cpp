#include "publication.h"

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

using publish::PublishOptions;
using test_support::exists;
using test_support::ScratchDirectory;
using test_support::write_file;
using tools::Finding;
using tools::Severity;

std::vector<std::string> files_of(const std::vector<Finding>& findings) {
  std::vector<std::string> files;
  for (const Finding& finding : findings) files.push_back(finding.file);
  return files;
}

TEST(Publication, WarnsOfEachFileThatWasEdited) {
  const publish::Manifest published = {{"a", "1"}, {"b", "1"}};
  const publish::Manifest found = {{"a", "2"}, {"c", "1"}};
  const std::vector<Finding> findings = publish::edited_in_place(published, found);
  EXPECT_EQ(files_of(findings), (std::vector<std::string>{"a", "b", "c"}));
  for (const Finding& finding : findings) EXPECT_EQ(finding.severity, Severity::kWarning);
}

TEST(Publication, TheVersionIsThatOfTheVersionFile) {
  const ScratchDirectory scratch;
  EXPECT_EQ(publish::published_version(scratch.path()), "");
  write_file(scratch / "norvak/norvak_agent_new_version.txt", "abcdef1.2\n");
  EXPECT_EQ(publish::published_version(scratch.path()), "abcdef1.2");
}

class PublishChangesTest : public testing::Test {
 protected:
  PublishChangesTest() {
    options.tree = scratch.path();
    options.quiet = true;
  }

  publish::ExitStatus publish_file(const std::string& text) {
    return publish::publish_changes(
        options, [&](publish::Draft& draft) { draft.put_text("/other/file", text); });
  }

  ScratchDirectory scratch;
  PublishOptions options;
};

TEST_F(PublishChangesTest, ADraftThatFailsLeavesNothing) {
  ASSERT_EQ(publish_file("one"), publish::ExitStatus::kDone);
  EXPECT_THROW((void)publish::publish_changes(
                   options, [](publish::Draft&) { throw publish::Failure("no"); }),
               publish::Failure);
  EXPECT_EQ(test_support::names_in(scratch / "releases"),
            (std::vector<std::string>{"1", "1.sha256"}));
}

TEST_F(PublishChangesTest, TheManifestKnowsWhatIsNewAndWhatIsOld) {
  ASSERT_EQ(publish_file("one"), publish::ExitStatus::kDone);
  ASSERT_EQ(publish::publish_changes(
                options, [](publish::Draft& draft) { draft.put_text("/other/second", "two"); }),
            publish::ExitStatus::kDone);
  EXPECT_EQ(publish::read_manifest(scratch / "releases/2.sha256"),
            publish::scan_release(scratch / "releases/2", {}));
}

TEST_F(PublishChangesTest, ATreeWithoutItsLinkStartsEmpty) {
  ASSERT_EQ(publish_file("one"), publish::ExitStatus::kDone);
  ASSERT_TRUE(exists(scratch / "current/other/file"));
  ASSERT_EQ(::remove((scratch / "current").c_str()), 0);
  ASSERT_EQ(publish::publish_changes(
                options, [](publish::Draft& draft) { draft.put_text("/other/second", "two"); }),
            publish::ExitStatus::kDone);
  EXPECT_FALSE(exists(scratch / "current/other/file"));
  EXPECT_EQ(test_support::read_file(scratch / "current/other/second"), "two");
}

TEST_F(PublishChangesTest, InPlaceAndImportExcludeEachOther) {
  options.in_place = options.import = true;
  EXPECT_THROW((void)publish_file("one"), publish::UsageError);
}

}  // namespace
