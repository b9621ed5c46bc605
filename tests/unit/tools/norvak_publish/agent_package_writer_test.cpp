#include "agent_package_writer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "agent_package_reader.h"
#include "failure.h"
#include "test_support.h"

namespace {

using publish::PackageContents;
using publish::PackageEntry;
using test_support::read_file;
using test_support::ScratchDirectory;
using test_support::write_file;

constexpr char kVersion[] = "abcdef3.1.10";

class PackageManifestTest : public testing::Test {
 protected:
  /// What is wrong with a manifest of @a text; empty if nothing.
  std::string complaint(const std::string& text) {
    write_file(scratch / "manifest", text);
    try {
      entries = publish::read_package_manifest(scratch / "manifest");
      return "";
    } catch (const publish::Failure& failure) {
      return failure.what();
    }
  }

  ScratchDirectory scratch;
  std::vector<PackageEntry> entries;
};

TEST_F(PackageManifestTest, HasAnEntryInEachLine) {
  ASSERT_EQ(complaint("# comment\n\nfile\t4755\troot\t0\tbin/a b\nlink\t-\troot\troot\tlib.so\n"
                      "remove\t-\t-\t-\told\npre\t-\t-\t-\ts/pre\npost\t-\t-\t-\ts/post\n"),
            "");
  ASSERT_EQ(entries.size(), 5U);
  EXPECT_EQ(entries[0].type, "file");
  EXPECT_EQ(entries[0].mode, "4755");
  EXPECT_EQ(entries[0].owner, "root");
  EXPECT_EQ(entries[0].group, "0");
  EXPECT_EQ(entries[0].path, "bin/a b");
}

TEST_F(PackageManifestTest, NamesTheInvalidLine) {
  EXPECT_EQ(complaint("file\t644\troot\troot\ta\nfile\t644\troot\ta\n"),
            scratch / "manifest" +
                ":2: not five fields separated by tabs: type, mode, owner, group, path");
}

TEST_F(PackageManifestTest, RefusesInvalidFields) {
  for (const char* line : {
           "files\t644\troot\troot\ta",
           "file\t-\troot\troot\ta",
           "file\t64\troot\troot\ta",
           "file\t00644\troot\troot\ta",
           "file\t648\troot\troot\ta",
           "link\t777\troot\troot\ta",
           "file\t644\t-\troot\ta",
           "file\t644\troot\t\ta",
           "file\t644\troot;id\troot\ta",
           "remove\t-\troot\t-\ta",
           "pre\t755\t-\t-\ta",
           "file\t644\troot\troot\t",
           "file\t644\troot\troot\t/a",
           "file\t644\troot\troot\t../a",
           "file\t644\troot\troot\ta/../../b",
           "file\t644\troot\troot\t..",
           "file\t644\troot\troot\t.",
           "file\t644\troot\troot\t./a",
           "file\t644\troot\troot\ta//b",
           "file\t644\troot\troot\ta/",
           "file\t644\troot\troot\ta\\b",
           "file\t644\troot\troot\ta\rb",
           "file\t644\troot\troot\ta\r",
       }) {
    EXPECT_NE(complaint(std::string(line) + "\n"), "") << line;
  }
}

TEST_F(PackageManifestTest, RefusesPathsThatUpdatesUse) {
  for (const char* path :
       {"update", "update_norvak_soft/data/x", "update_norvak_kernel", ".norvak_install",
        ".norvak_install.done", "a.norvak-old", "d/a.norvak-new"}) {
    EXPECT_NE(complaint(std::string("file\t644\troot\troot\t") + path + "\n"), "") << path;
  }
  EXPECT_EQ(complaint("file\t644\troot\troot\tupdates\n"), "");
}

TEST_F(PackageManifestTest, HasToBeReadable) {
  EXPECT_THROW((void)publish::read_package_manifest(scratch / "missing"), publish::Failure);
}

class PackageWriterTest : public testing::Test {
 protected:
  void SetUp() override {
    write_file(scratch / "payload/bin/agent", "the agent");
    write_file(scratch / "payload/scripts/pre", "exit 0");
    ASSERT_EQ(::symlink("bin/agent", (scratch / "payload/run").c_str()), 0);
    contents = {kVersion,
                scratch / "payload",
                {{"file", "755", "root", "root", "bin/agent"},
                 {"dir", "755", "root", "root", "bin"},
                 {"link", "-", "root", "root", "run"},
                 {"pre", "-", "-", "-", "scripts/pre"},
                 {"remove", "-", "-", "-", "old"}},
                false};
  }

  [[nodiscard]] std::vector<std::string> complaints() const {
    return publish::check_contents(contents);
  }

  ScratchDirectory scratch;
  PackageContents contents;
};

using Complaints = std::vector<std::string>;

TEST_F(PackageWriterTest, FindsNothingWrongWithAWholePayload) {
  EXPECT_EQ(complaints(), Complaints{});
}

TEST_F(PackageWriterTest, FindsWhatIsNotInTheManifest) {
  write_file(scratch / "payload/bin/forgotten", "");
  EXPECT_EQ(complaints(), Complaints{"bin/forgotten is not in the manifest"});
}

TEST_F(PackageWriterTest, FindsWhatIsNotInThePayload) {
  contents.entries.push_back({"file", "755", "root", "root", "bin/missing"});
  EXPECT_EQ(complaints(), Complaints{"bin/missing is not in the payload"});
}

TEST_F(PackageWriterTest, FindsAnEntryOfAnotherType) {
  contents.entries[0].type = "link";
  contents.entries[1].type = "file";
  contents.entries[2].type = "file";
  EXPECT_EQ(complaints(), (Complaints{"bin/agent is not a symbolic link",
                                      "bin is not a regular file", "run is not a regular file",
                                      "bin/agent needs a line for the directory bin"}));
}

TEST_F(PackageWriterTest, FindsAPathThatIsListedTwiceOrInstalledAndRemoved) {
  contents.entries.push_back({"remove", "-", "-", "-", "bin/agent"});
  EXPECT_EQ(complaints(),
            (Complaints{"bin/agent is listed twice", "bin/agent is in the payload, but removed"}));
}

TEST_F(PackageWriterTest, ReplacesTheConfigurationOnlyOnRequest) {
  write_file(scratch / "payload/config.xml", "<a/>");
  contents.entries.push_back({"file", "644", "root", "root", "config.xml"});
  EXPECT_EQ(complaints().size(), 1U);
  contents.replace_config = true;
  EXPECT_EQ(complaints(), Complaints{});
}

TEST_F(PackageWriterTest, NeverRemovesTheConfiguration) {
  contents.replace_config = true;
  contents.entries.push_back({"remove", "-", "-", "-", "config.xml"});
  EXPECT_EQ(complaints().size(), 1U);
}

TEST_F(PackageWriterTest, TheSameInputMakesTheSameBytes) {
  publish::write_package(scratch / "one.tar", contents);
  const struct utimbuf times = {1, 1};
  ASSERT_EQ(::utime((scratch / "payload/bin/agent").c_str(), &times), 0);
  ASSERT_EQ(::chmod((scratch / "payload/bin/agent").c_str(), 0700), 0);
  publish::write_package(scratch / "two.tar", contents);
  EXPECT_EQ(read_file(scratch / "one.tar"), read_file(scratch / "two.tar"));
}

TEST_F(PackageWriterTest, ThePackageIsReadAsWritten) {
  publish::write_package(scratch / "package.tar", contents);
  const publish::AgentPackage package = publish::read_agent_package(scratch / "package.tar");
  EXPECT_EQ(package.damage, "");
  EXPECT_TRUE(package.has_end);
  EXPECT_TRUE(package.has_script);
  EXPECT_EQ(package.version, kVersion);
  EXPECT_TRUE(package.outside.empty());
}

TEST_F(PackageWriterTest, TheScriptIsTheLastMember) {
  publish::write_package(scratch / "package.tar", contents);
  const std::string tar = read_file(scratch / "package.tar");
  const auto header = [&](const char* name) { return tar.find(std::string(name) + '\0'); };
  EXPECT_GT(header("update"), header("digests"));
  EXPECT_GT(header("digests"), header("payload/bin/agent"));
}

TEST_F(PackageWriterTest, WhatUstarCannotHoldIsAFailure) {
  const std::string name(101, 'n');
  write_file(scratch / ("payload/" + name), "");
  contents.entries.push_back({"file", "644", "root", "root", name});
  ASSERT_EQ(complaints(), Complaints{});
  EXPECT_THROW(publish::write_package(scratch / "package.tar", contents), publish::Failure);
  EXPECT_EQ(test_support::names_in(scratch.path()), Complaints{"payload"});
}

TEST_F(PackageWriterTest, ALinkTargetThatUstarCannotHoldIsAFailure) {
  ASSERT_EQ(::unlink((scratch / "payload/run").c_str()), 0);
  ASSERT_EQ(::symlink(std::string(101, 't').c_str(), (scratch / "payload/run").c_str()), 0);
  EXPECT_THROW(publish::write_package(scratch / "package.tar", contents), publish::Failure);
}

TEST_F(PackageWriterTest, AFileThatCannotBeReadKeepsTheOldPackage) {
  write_file(scratch / "package.tar", "old");
  ASSERT_EQ(::unlink((scratch / "payload/bin/agent").c_str()), 0);
  EXPECT_THROW(publish::write_package(scratch / "package.tar", contents), publish::Failure);
  EXPECT_EQ(read_file(scratch / "package.tar"), "old");
}

TEST(ShellQuoted, IsOneWord) {
  EXPECT_EQ(publish::shell_quoted("a b$c"), "'a b$c'");
  EXPECT_EQ(publish::shell_quoted("it's"), "'it'\\''s'");
  EXPECT_EQ(publish::shell_quoted(""), "''");
}

}  // namespace
