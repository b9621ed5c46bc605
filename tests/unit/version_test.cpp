#include "version.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "test_support.h"

namespace {

using test_support::ScratchDirectory;
using test_support::write_file;

TEST(Version, AVersionOfFewerThanSixCharactersThrows) {
  EXPECT_THROW((void)version::is_newer("short", "abcdef1"), std::out_of_range);
  EXPECT_THROW((void)version::is_newer("abcdef1", "short"), std::out_of_range);
  EXPECT_FALSE(version::is_newer("abcdef", "abcdef1"));
}

TEST(Version, FieldsAreComparedAsNumbersUpToTheShorterVersion) {
  EXPECT_TRUE(version::is_newer("abcdef3.1.10", "zzzzzz3.1.9"));
  EXPECT_FALSE(version::is_newer("abcdef3.1.9", "abcdef3.1.10"));
  EXPECT_FALSE(version::is_newer("abcdef3.1.2", "abcdef3.1"));
}

TEST(Version, AVersionFileHasOneLineThatIsNotEmpty) {
  const ScratchDirectory dir;
  const std::string path = dir / "version";
  const struct {
    const char* contents;
    bool is_version_file;
    const char* version;
  } kCases[] = {
      {"abcdef1\n", true, "abcdef1"},
      {"abcdef1", true, "abcdef1"},
      {"abcdef1\n\n", true, "abcdef1"},
      {"\nabcdef1\n", true, ""},
      {"abcdef1\r\n", true, "abcdef1\r"},
      {"abcdef1\nabcdef2\n", false, "abcdef1"},
      {"", false, ""},
      {"\n\n", false, ""},
  };
  for (const auto& [contents, is_version_file, text] : kCases) {
    write_file(path, contents);
    EXPECT_EQ(version::is_version_file(path), is_version_file) << contents;
    EXPECT_EQ(version::read_version_file(path), text) << contents;
  }
}

TEST(Version, OnlyTheFirstCharactersOfALongLineAreTheVersion) {
  const ScratchDirectory dir;
  write_file(dir / "version", std::string(70, '1') + "\n");
  EXPECT_EQ(version::read_version_file(dir / "version"), std::string(version::kMaxBytes, '1'));
}

TEST(Version, AMissingFileHoldsNoVersion) {
  const ScratchDirectory dir;
  EXPECT_FALSE(version::is_version_file(dir / "missing"));
  EXPECT_EQ(version::read_version_file(dir / "missing"), std::nullopt);
}

}  // namespace
