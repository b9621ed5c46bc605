#include "files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "failure.h"
#include "test_support.h"

namespace {

using test_support::exists;
using test_support::mode_of;
using test_support::read_file;
using test_support::ScopedUmask;
using test_support::ScratchDirectory;
using test_support::write_file;

struct stat status_of(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

TEST(PublishFiles, ANewDirectoryIsReadableWhateverTheUmask) {
  const ScratchDirectory scratch;
  const ScopedUmask umask(0077);
  publish::make_directories(scratch / "a/b");
  EXPECT_EQ(mode_of(scratch / "a"), 0755U);
  EXPECT_EQ(mode_of(scratch / "a/b"), 0755U);
}

TEST(PublishFiles, AnExistingDirectoryIsLeftAlone) {
  const ScratchDirectory scratch;
  ASSERT_EQ(::mkdir((scratch / "a").c_str(), 0700), 0);
  publish::make_directories(scratch / "a");
  EXPECT_EQ(mode_of(scratch / "a"), 0700U);
}

TEST(PublishFiles, AFileInsteadOfADirectoryIsAFailure) {
  const ScratchDirectory scratch;
  write_file(scratch / "a", "");
  EXPECT_THROW(publish::make_directory(scratch / "a"), publish::Failure);
}

TEST(PublishFiles, AnInstalledFileIsReadableAndHasTheGivenTime) {
  const ScratchDirectory scratch;
  const ScopedUmask umask(0077);
  publish::install_text("text", scratch / "file", 1'000'000'000);
  EXPECT_EQ(read_file(scratch / "file"), "text");
  EXPECT_EQ(mode_of(scratch / "file"), 0444U);
  EXPECT_EQ(publish::modification_time(scratch / "file"), 1'000'000'000);
  EXPECT_FALSE(exists(scratch / "file" + publish::kTemporarySuffix));
}

TEST(PublishFiles, AReplacedFileKeepsTheContentsOfItsOtherLinks) {
  const ScratchDirectory scratch;
  write_file(scratch / "old", "old");
  publish::link_or_copy(scratch / "old", scratch / "file");
  publish::install_text("new", scratch / "file", 1);
  EXPECT_EQ(read_file(scratch / "old"), "old");
  EXPECT_EQ(read_file(scratch / "file"), "new");
}

TEST(PublishFiles, AnInstalledCopyHasAllBytes) {
  const ScratchDirectory scratch;
  const std::string contents = std::string(300'000, 'x') + '\0' + "end";
  write_file(scratch / "source", contents);
  publish::install_copy(scratch / "source", scratch / "file", 1);
  EXPECT_EQ(read_file(scratch / "file"), contents);
}

TEST(PublishFiles, ASourceThatCannotBeReadLeavesTheTarget) {
  const ScratchDirectory scratch;
  write_file(scratch / "file", "old");
  for (const char* source : {"missing", "."}) {
    EXPECT_THROW(publish::install_copy(scratch / source, scratch / "file", 1), publish::Failure);
    EXPECT_EQ(read_file(scratch / "file"), "old");
    EXPECT_FALSE(exists(scratch / "file" + publish::kTemporarySuffix));
  }
}

TEST(PublishFiles, WhatAKilledRunLeftIsReplaced) {
  const ScratchDirectory scratch;
  write_file(scratch / "file" + publish::kTemporarySuffix, "a long rest");
  publish::install_text("new", scratch / "file", 1);
  EXPECT_EQ(read_file(scratch / "file"), "new");
}

TEST(PublishFiles, AFullDiskLeavesTheTarget) {
  if (!test_support::in_private_namespace()) GTEST_SKIP() << "needs a private mount namespace";
  const ScratchDirectory scratch;
  const test_support::SmallDisk disk(scratch / "", 64 * 1024);
  ASSERT_TRUE(disk.mounted());
  write_file(scratch / "file", "old");
  EXPECT_THROW(publish::install_text(std::string(200'000, 'x'), scratch / "file", 1),
               publish::Failure);
  EXPECT_EQ(read_file(scratch / "file"), "old");
  EXPECT_EQ(test_support::names_in(scratch.path()), std::vector<std::string>{"file"});
}

TEST(PublishFiles, OnAnotherFileSystemALinkBecomesACopyOfTheSameTime) {
  if (!test_support::in_private_namespace()) GTEST_SKIP() << "needs a private mount namespace";
  const ScratchDirectory scratch;
  write_file(scratch / "file", "contents");
  ASSERT_EQ(::chmod((scratch / "file").c_str(), 0640), 0);
  ASSERT_EQ(::mkdir((scratch / "disk").c_str(), 0755), 0);
  const test_support::SmallDisk disk(scratch / "disk", 64 * 1024);
  ASSERT_TRUE(disk.mounted());
  publish::link_or_copy(scratch / "file", scratch / "disk/file");
  EXPECT_EQ(read_file(scratch / "disk/file"), "contents");
  EXPECT_EQ(mode_of(scratch / "disk/file"), 0640U);
  EXPECT_EQ(status_of(scratch / "disk/file").st_mtim.tv_nsec,
            status_of(scratch / "file").st_mtim.tv_nsec);
}

TEST(PublishFiles, ALinkIsNotMadeOverAnotherFile) {
  const ScratchDirectory scratch;
  write_file(scratch / "a", "a");
  write_file(scratch / "b", "b");
  EXPECT_THROW(publish::link_or_copy(scratch / "a", scratch / "b"), publish::Failure);
  EXPECT_EQ(read_file(scratch / "b"), "b");
}

TEST(PublishFiles, ALinkedTreeSharesItsFiles) {
  const ScratchDirectory scratch;
  write_file(scratch / "from/a/b/file", "contents");
  publish::link_tree(scratch / "from", scratch / "to");
  EXPECT_EQ(status_of(scratch / "to/a/b/file").st_ino, status_of(scratch / "from/a/b/file").st_ino);
  EXPECT_NE(status_of(scratch / "to/a").st_ino, status_of(scratch / "from/a").st_ino);
}

TEST(PublishFiles, ContentsAreComparedInFull) {
  const ScratchDirectory scratch;
  write_file(scratch / "a", "text");
  write_file(scratch / "b", "text");
  write_file(scratch / "c", "tent");
  write_file(scratch / "longer", "text\n");
  write_file(scratch / "empty", "");
  EXPECT_TRUE(publish::holds_copy(scratch / "a", scratch / "b"));
  EXPECT_FALSE(publish::holds_copy(scratch / "c", scratch / "a"));
  EXPECT_FALSE(publish::holds_copy(scratch / "longer", scratch / "a"));
  EXPECT_FALSE(publish::holds_copy(scratch / "missing", scratch / "a"));
  EXPECT_TRUE(publish::holds_text(scratch / "a", "text"));
  EXPECT_TRUE(publish::holds_text(scratch / "empty", ""));
  EXPECT_FALSE(publish::holds_text(scratch / "c", "text"));
  EXPECT_FALSE(publish::holds_text(scratch / "longer", "text"));
  EXPECT_FALSE(publish::holds_text(scratch / "missing", ""));
}

TEST(PublishFiles, ATreeIsRemovedOnce) {
  const ScratchDirectory scratch;
  write_file(scratch / "a/b", "");
  publish::remove_tree(scratch / "a");
  EXPECT_FALSE(exists(scratch / "a"));
  publish::remove_tree(scratch / "a");
}

}  // namespace
