#include "manifest.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "failure.h"
#include "test_support.h"

namespace {

using test_support::ScratchDirectory;
using test_support::write_file;

// Of "abc" and of the empty text, from FIPS 180-4's examples.
constexpr char kAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char kEmpty[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

TEST(Sha256, DigestsComeInTheOrderOfTheFiles) {
  const ScratchDirectory scratch;
  write_file(scratch / "abc", "abc");
  write_file(scratch / "empty", "");
  std::vector<std::filesystem::path> files;
  std::vector<std::string> digests;
  for (int i = 0; i < 50; ++i) {
    files.emplace_back(scratch / (i % 3 == 0 ? "abc" : "empty"));
    digests.emplace_back(i % 3 == 0 ? kAbc : kEmpty);
  }
  EXPECT_EQ(publish::sha256(files, {}), digests);
}

TEST(Sha256, AFileOfSeveralBlocksIsReadWhole) {
  const ScratchDirectory scratch;
  write_file(scratch / "million", std::string(1'000'000, 'a'));
  EXPECT_EQ(publish::sha256({scratch / "million"}, {}).front(),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, NoFilesHaveNoDigests) { EXPECT_TRUE(publish::sha256({}, {}).empty()); }

TEST(Sha256, AFileThatCannotBeReadIsAFailure) {
  const ScratchDirectory scratch;
  EXPECT_THROW((void)publish::sha256({scratch / "missing"}, {}), publish::Failure);
  EXPECT_THROW((void)publish::sha256({scratch.path()}, {}), publish::Failure);
}

TEST(Manifest, IsReadAsWritten) {
  const ScratchDirectory scratch;
  write_file(scratch / "release/kernels/a b", "abc");
  write_file(scratch / "release/empty", "");
  const publish::Manifest manifest = publish::scan_release(scratch / "release", {});
  const std::string text = publish::manifest_text(manifest);
  EXPECT_EQ(text, std::string(kEmpty) + "  empty\n" + kAbc + "  kernels/a b\n");
  write_file(scratch / "manifest", text);
  EXPECT_EQ(publish::read_manifest(scratch / "manifest"), manifest);
}

TEST(Manifest, OfAnotherFormatIsAFailure) {
  const ScratchDirectory scratch;
  for (const std::string& text :
       {std::string("x\n"), std::string(kAbc) + "\n", std::string(kAbc) + " *file\n",
        std::string(kAbc) + "  \n", std::string("\n")}) {
    write_file(scratch / "manifest", text);
    EXPECT_THROW((void)publish::read_manifest(scratch / "manifest"), publish::Failure) << text;
  }
  EXPECT_THROW((void)publish::read_manifest(scratch / "missing"), publish::Failure);
}

TEST(Manifest, ListsOnlyWhatIsPublished) {
  const ScratchDirectory scratch;
  write_file(scratch / "releases/1/a", "");
  write_file(scratch / ".norvak_publish/a", "");
  write_file(scratch / "kernels/releases/a", "");
  ASSERT_EQ(::mkdir((scratch / "empty").c_str(), 0755), 0);
  EXPECT_EQ(publish::list_files(scratch.path()), std::vector<std::string>{"kernels/releases/a"});
}

TEST(Manifest, ALinkOrAnInvalidNameIsAFailure) {
  const ScratchDirectory scratch;
  ASSERT_EQ(::symlink("a", (scratch / "link").c_str()), 0);
  EXPECT_THROW((void)publish::list_files(scratch.path()), publish::Failure);
  ASSERT_EQ(::unlink((scratch / "link").c_str()), 0);
  EXPECT_NO_THROW((void)publish::list_files(scratch.path()));
  for (const char* name : {"a\nb", "a\\b", "a\x7f"}) {
    write_file(scratch / name, "");
    EXPECT_THROW((void)publish::list_files(scratch.path()), publish::Failure) << name;
    ASSERT_EQ(::unlink((scratch / name).c_str()), 0);
  }
}

TEST(Manifest, DifferencesAreWhatIsMissingAddedOrChanged) {
  const publish::Manifest published = {{"a", "1"}, {"changed", "1"}, {"missing", "1"}};
  const publish::Manifest found = {{"a", "1"}, {"added", "1"}, {"changed", "2"}};
  EXPECT_EQ(publish::differences(published, found),
            (std::vector<std::string>{"added", "changed", "missing"}));
  EXPECT_TRUE(publish::differences(found, found).empty());
}

}  // namespace
