#include "published_digest.h"

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

using test_support::ScratchDirectory;
using test_support::write_file;

using published_digest::ModuleState;

const std::string kContents = "abc";
const std::string kDigest = "900150983cd24fb0d6963f7d28e17f72";  // RFC 1321, A.5

class PublishedDigest : public testing::Test {
 protected:
  void SetUp() override { write_file(file_, kContents); }

  void publish(const std::string& list) { write_file(list_, list); }

  const ScratchDirectory dir_;
  const std::string list_ = dir_ / "list";
  const std::string file_ = dir_ / "file";
};

TEST_F(PublishedDigest, AModuleIsCurrentIfTheOnlyLineIsItsDigest) {
  const std::pair<std::string, ModuleState> kCases[] = {
      {kDigest, ModuleState::kCurrent},
      {kDigest + "\n", ModuleState::kCurrent},
      {kDigest + "\r\n", ModuleState::kDiffers},
      {" " + kDigest, ModuleState::kDiffers},
      {"", ModuleState::kDiffers},
      {kDigest + "\n\n", ModuleState::kAbnormal},
      {std::string(1023, 'x') + "y", ModuleState::kAbnormal},
  };
  for (const auto& [list, state] : kCases) {
    publish(list);
    EXPECT_EQ(published_digest::compare_module(list_, file_), state) << list;
  }
  publish("");
  EXPECT_EQ(published_digest::compare_module(list_, dir_ / "missing"), ModuleState::kDiffers);
  publish("1\n2\n");
  EXPECT_EQ(published_digest::compare_module(list_, dir_ / "missing"), ModuleState::kAbnormal);
  EXPECT_EQ(published_digest::compare_module(dir_ / "missing", file_), ModuleState::kUnreadable);
}

TEST_F(PublishedDigest, VerificationOfAModuleIgnoresWhiteSpaceAndLaterLines) {
  for (const std::string& list : {kDigest, " \t" + kDigest + "\r\n", kDigest + "\nmore\n"}) {
    publish(list);
    EXPECT_TRUE(published_digest::verify_module(list_, file_)) << list;
  }
  publish("900150983CD24FB0D6963F7D28E17F72\n");
  EXPECT_FALSE(published_digest::verify_module(list_, file_));
  EXPECT_FALSE(published_digest::verify_module(dir_ / "missing", file_));
}

TEST_F(PublishedDigest, VerificationOfRulesIsExact) {
  for (const std::string& list : {kDigest, kDigest + "\n", kDigest + "\nmore\n"}) {
    publish(list);
    EXPECT_TRUE(published_digest::verify_rules(list_, file_)) << list;
  }
  for (const std::string& list : {kDigest + "\r\n", kDigest + " ", " " + kDigest}) {
    publish(list);
    EXPECT_FALSE(published_digest::verify_rules(list_, file_)) << list;
  }
}

TEST_F(PublishedDigest, OneLineOtherThanTheRecordedOneAnnouncesNewRules) {
  publish(kDigest + "\n");
  EXPECT_TRUE(published_digest::announces_new_rules(list_, ""));
  EXPECT_FALSE(published_digest::announces_new_rules(list_, kDigest));
  EXPECT_TRUE(published_digest::announces_new_rules(list_, kDigest + "\r"));
  publish(kDigest + "\nfile\n");
  EXPECT_FALSE(published_digest::announces_new_rules(list_, ""));
  publish("");
  EXPECT_FALSE(published_digest::announces_new_rules(list_, "x"));
}

TEST_F(PublishedDigest, NoRecordMeansNoRulesAndAnUnreadableOneIsNotKnown) {
  EXPECT_EQ(published_digest::current_rules(dir_ / "missing"), "");
  publish(kDigest + "\r\nmore\n");
  EXPECT_EQ(published_digest::current_rules(list_), kDigest + "\r");
  EXPECT_EQ(published_digest::current_rules(dir_.path()), std::nullopt);
}

TEST_F(PublishedDigest, BuildsAreTheSameIfTheirLinesAre) {
  write_file(file_, "build 1\nmore");
  publish("build 1\n");
  EXPECT_TRUE(published_digest::same_nginx_build(file_, list_));
  publish("build 1");
  EXPECT_FALSE(published_digest::same_nginx_build(file_, list_)) << "line feeds count";
  EXPECT_FALSE(published_digest::same_nginx_build(dir_ / "missing", dir_ / "missing"));
  write_file(file_, "");
  EXPECT_TRUE(published_digest::same_nginx_build(file_, dir_ / "missing"));
}

}  // namespace
