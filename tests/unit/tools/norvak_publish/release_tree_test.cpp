#include "release_tree.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "failure.h"
#include "files.h"
#include "test_support.h"

namespace {

using publish::ReleaseTree;
using test_support::exists;
using test_support::read_file;
using test_support::ScratchDirectory;
using test_support::write_file;

constexpr std::chrono::seconds kNoWait(0);

/// Publishes a release with the file "file".
int publish_release(ReleaseTree& tree, const std::string& contents) {
  publish::make_directories(tree.draft());
  write_file(tree.draft() / "file", contents);
  const int number = tree.complete_draft(publish::scan_release(tree.draft(), {}));
  tree.serve(number);
  return number;
}

class ReleaseTreeTest : public testing::Test {
 protected:
  void SetUp() override { tree.lock(kNoWait); }

  void link(const std::string& target, const std::string& name) const {
    ASSERT_EQ(::symlink(target.c_str(), (scratch / name).c_str()), 0);
  }

  ScratchDirectory scratch;
  ReleaseTree tree{scratch.path()};
};

TEST_F(ReleaseTreeTest, ServesOneReleaseAfterTheOther) {
  EXPECT_EQ(tree.kind(), ReleaseTree::Kind::kEmpty);
  EXPECT_EQ(tree.current(), std::nullopt);
  EXPECT_EQ(publish_release(tree, "one"), 1);
  EXPECT_EQ(tree.kind(), ReleaseTree::Kind::kReleases);
  EXPECT_EQ(tree.current(), 1);
  EXPECT_EQ(tree.linked(ReleaseTree::kPrevious), std::nullopt);
  EXPECT_EQ(publish_release(tree, "two"), 2);
  EXPECT_EQ(tree.current(), 2);
  EXPECT_EQ(tree.linked(ReleaseTree::kPrevious), 1);
  EXPECT_EQ(read_file(scratch / "current/file"), "two");
  EXPECT_EQ(tree.releases(), (std::vector<int>{1, 2}));
  EXPECT_EQ(publish::read_manifest(tree.manifest(2)), publish::scan_release(tree.release(2), {}));
}

TEST_F(ReleaseTreeTest, IsNoTreeWithoutADirectory) {
  write_file(scratch / "file", "");
  EXPECT_THROW(ReleaseTree(scratch / "file"), publish::Failure);
  EXPECT_THROW(ReleaseTree(scratch / "missing"), publish::Failure);
}

TEST_F(ReleaseTreeTest, PublishedFilesWithoutReleasesAreAPlainTree) {
  write_file(scratch / "norvak/file", "");
  EXPECT_EQ(tree.kind(), ReleaseTree::Kind::kPlain);
}

TEST_F(ReleaseTreeTest, ReleasesThatWereNeverServedAreEmpty) {
  write_file(scratch / "releases/draft/file", "");
  write_file(scratch / "current.norvak_publish", "");
  EXPECT_EQ(tree.kind(), ReleaseTree::Kind::kEmpty);
}

TEST_F(ReleaseTreeTest, ASecondPublisherIsKeptOutUntilTheFirstEnds) {
  const auto try_lock = [&](std::chrono::seconds wait) {
    ReleaseTree second(scratch.path());
    second.lock(wait);
  };
  EXPECT_THROW(try_lock(kNoWait), publish::Failure);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THROW(try_lock(std::chrono::seconds(1)), publish::Failure);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(ReleaseTreeTest, ALinkThatNamesNoReleaseIsAFailure) {
  for (const char* target : {"releases/7", "elsewhere", "../releases/1", "releases/01"}) {
    link(target, "current");
    EXPECT_THROW((void)tree.current(), publish::Failure) << target;
    ASSERT_EQ(::unlink((scratch / "current").c_str()), 0);
  }
}

TEST_F(ReleaseTreeTest, ALinkMayBeAbsolute) {
  (void)publish_release(tree, "one");
  link(tree.release(1), "staging");
  EXPECT_EQ(tree.linked("staging"), 1);
}

TEST_F(ReleaseTreeTest, KeepsTheGivenNumberOfOldReleases) {
  for (int i = 0; i < 6; ++i) (void)publish_release(tree, std::to_string(i));
  EXPECT_EQ(tree.remove_old_releases(5), std::vector<int>{});
  EXPECT_EQ(tree.remove_old_releases(2), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(tree.releases(), (std::vector<int>{4, 5, 6}));
  EXPECT_FALSE(exists(scratch / "releases/1.sha256"));
  EXPECT_EQ(tree.remove_old_releases(0), std::vector<int>{4});  // `previous` names 5
}

TEST_F(ReleaseTreeTest, AReleaseThatALinkNamesIsNotRemoved) {
  for (int i = 0; i < 5; ++i) (void)publish_release(tree, std::to_string(i));
  link("releases/1", "mirror");
  EXPECT_EQ(tree.remove_old_releases(2), (std::vector<int>{2, 3}));
  EXPECT_EQ(tree.releases(), (std::vector<int>{1, 4, 5}));
}

TEST_F(ReleaseTreeTest, CleansUpWhatAKilledPublisherLeft) {
  (void)publish_release(tree, "one");
  write_file(scratch / "releases/draft/file", "");
  write_file(scratch / "releases/2/file", "complete, but never served");
  write_file(scratch / "releases/2.sha256.norvak_publish", "");
  write_file(scratch / ".norvak_publish/file", "");
  link("releases/2", "current.norvak_publish");
  tree.clean_up();
  EXPECT_EQ(test_support::names_in(scratch.path()),
            (std::vector<std::string>{"current", "releases"}));
  EXPECT_EQ(test_support::names_in(scratch / "releases"),
            (std::vector<std::string>{"1", "1.sha256"}));
}

TEST_F(ReleaseTreeTest, CompletesTheManifestOfTheServedRelease) {
  (void)publish_release(tree, "one");
  publish::rename_path(tree.manifest(1), tree.manifest(1).string() + ".norvak_publish");
  tree.clean_up();
  EXPECT_TRUE(exists(tree.manifest(1)));
}

TEST_F(ReleaseTreeTest, NumbersAreNotUsedTwice) {
  for (int i = 0; i < 3; ++i) (void)publish_release(tree, std::to_string(i));
  tree.serve(1);
  EXPECT_EQ(publish_release(tree, "four"), 4);
  EXPECT_EQ(tree.linked(ReleaseTree::kPrevious), 1);
}

}  // namespace
