#include "published_digest.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "test_support.h"

namespace {

using published_digest::ModuleState;
using test_support::case_name;
using test_support::ScratchDirectory;
using test_support::write_file;
using testing::ValuesIn;
using testing::WithParamInterface;

const std::string kContents = "abc";
const std::string kDigest = "900150983cd24fb0d6963f7d28e17f72";  // RFC 1321, A.5
const std::string kCapitals = "900150983CD24FB0D6963F7D28E17F72";
const std::string kOtherDigest = "d41d8cd98f00b204e9800998ecf8427e";

class PublishedDigest : public testing::Test {
 protected:
  void SetUp() override { write_file(file_, kContents); }

  void publish(const std::string& list) { write_file(list_, list); }

  const ScratchDirectory dir_;
  const std::string list_ = dir_ / "list";
  const std::string file_ = dir_ / "file";
  const std::string missing_ = dir_ / "missing";
};

// Whether a module is current

struct ModuleListCase {
  const char* name;
  std::string list;
  ModuleState installed;  ///< if the module is installed, with kDigest
  ModuleState missing;    ///< if it is not
};

class ModuleList : public PublishedDigest, public WithParamInterface<ModuleListCase> {};

TEST_P(ModuleList, IsComparedWithTheInstalledModule) {
  publish(GetParam().list);
  EXPECT_EQ(published_digest::compare_module(list_, file_), GetParam().installed);
  EXPECT_EQ(published_digest::compare_module(list_, missing_), GetParam().missing);
}

constexpr ModuleState kCurrent = ModuleState::kCurrent;
constexpr ModuleState kDiffers = ModuleState::kDiffers;
constexpr ModuleState kAbnormal = ModuleState::kAbnormal;

const ModuleListCase kModuleLists[] = {
    {"LineFeed", kDigest + "\n", kCurrent, kDiffers},
    {"NoLineFeed", kDigest, kCurrent, kDiffers},
    {"OtherDigest", kOtherDigest + "\n", kDiffers, kDiffers},
    {"Capitals", kCapitals + "\n", kDiffers, kDiffers},
    {"CarriageReturn", kDigest + "\r\n", kDiffers, kDiffers},
    {"BlankBefore", " " + kDigest + "\n", kDiffers, kDiffers},
    {"BlankAfter", kDigest + " \n", kDiffers, kDiffers},
    {"NoDigest", "no digest", kDiffers, kDiffers},
    {"DigestOfAFileThatCannotBeRead", "-1\n", kDiffers, kDiffers},
    {"Empty", "", kDiffers, kDiffers},
    {"OneLineFeed", "\n", kDiffers, kDiffers},
    {"TwoLines", kDigest + "\n" + kDigest + "\n", kAbnormal, kAbnormal},
    {"TwoLinesWithoutTheLastLineFeed", kDigest + "\nx", kAbnormal, kAbnormal},
    {"TrailingEmptyLine", kDigest + "\n\n", kAbnormal, kAbnormal},
    {"LeadingEmptyLine", "\n" + kDigest + "\n", kAbnormal, kAbnormal},
    {"OnePieceOf1022Characters", std::string(1022, 'x') + "\n", kDiffers, kDiffers},
    {"OnePieceOf1023Characters", std::string(1023, 'x'), kDiffers, kDiffers},
    {"LineFeedAsASecondPiece", std::string(1023, 'x') + "\n", kAbnormal, kAbnormal},
    {"TwoPiecesOfOneLine", std::string(1024, 'x'), kAbnormal, kAbnormal},
};

INSTANTIATE_TEST_SUITE_P(Lists, ModuleList, ValuesIn(kModuleLists), case_name);

TEST_F(PublishedDigest, AModuleListThatCannotBeOpenedIsUnreadable) {
  EXPECT_EQ(published_digest::compare_module(missing_, file_), ModuleState::kUnreadable);
}

TEST_F(PublishedDigest, AListHasOneLine) {
  publish("any text");
  EXPECT_TRUE(published_digest::is_list(list_));
  for (const char* text : {"", "two\nlines\n"}) {
    publish(text);
    EXPECT_FALSE(published_digest::is_list(list_)) << text;
  }
  EXPECT_FALSE(published_digest::is_list(missing_));
}

// The verification of a downloaded file

struct VerificationCase {
  const char* name;
  std::string list;
  bool verified;
};

class ModuleVerification : public PublishedDigest, public WithParamInterface<VerificationCase> {};

TEST_P(ModuleVerification, ComparesTheFirstLineWithoutBlanksAroundIt) {
  publish(GetParam().list);
  EXPECT_EQ(published_digest::verify_module(list_, file_), GetParam().verified);
}

const VerificationCase kModuleVerifications[] = {
    {"LineFeed", kDigest + "\n", true},
    {"NoLineFeed", kDigest, true},
    {"CarriageReturn", kDigest + "\r\n", true},
    {"BlanksAndTabs", " \t" + kDigest + "\t \n", true},
    {"LaterLinesAreIgnored", kDigest + "\nanything\n", true},
    {"Capitals", kCapitals + "\n", false},
    {"OtherDigest", kOtherDigest + "\n", false},
    {"DigestTooShort", kDigest.substr(0, 31) + "\n", false},
    {"TextAfterTheDigest", kDigest + "  tessel_linux.ko\n", false},
    {"FormFeedIsNotTrimmed", kDigest + "\f\n", false},
    {"DigestInTheSecondLine", "\n" + kDigest + "\n", false},
    {"Empty", "", false},
    {"TextAfter127Characters", kDigest + std::string(95, ' ') + "x", true},
    {"TextAsThe127thCharacter", kDigest + std::string(94, ' ') + "x", false},
    {"DigestCutAfter127Characters", std::string(96, ' ') + kDigest, false},
};

INSTANTIATE_TEST_SUITE_P(Lists, ModuleVerification, ValuesIn(kModuleVerifications), case_name);

class RulesVerification : public PublishedDigest, public WithParamInterface<VerificationCase> {};

TEST_P(RulesVerification, ComparesTheFirstLineExactly) {
  publish(GetParam().list);
  EXPECT_EQ(published_digest::verify_rules(list_, file_), GetParam().verified);
}

const VerificationCase kRulesVerifications[] = {
    {"LineFeed", kDigest + "\n", true},
    {"NoLineFeed", kDigest, true},
    {"LaterLinesAreIgnored", kDigest + "\nanything\n", true},
    {"OtherDigest", kOtherDigest + "\n", false},
    {"Capitals", kCapitals + "\n", false},
    {"CarriageReturn", kDigest + "\r\n", false},
    {"BlankBefore", " " + kDigest + "\n", false},
    {"BlankAfter", kDigest + " \n", false},
    {"TextAfterTheDigest", kDigest + "  norvak_default_rule.xml\n", false},
    {"TooShort", kDigest.substr(0, 31) + "\n", false},
    {"DigestInTheSecondLine", "\n" + kDigest + "\n", false},
    {"DigestAfterManyBlanks", std::string(127, ' ') + kDigest + "\n", false},
    {"Empty", "", false},
};

INSTANTIATE_TEST_SUITE_P(Lists, RulesVerification, ValuesIn(kRulesVerifications), case_name);

TEST_F(PublishedDigest, WithoutAListOrFileNothingIsVerified) {
  publish(kDigest);
  for (const auto verify : {published_digest::verify_module, published_digest::verify_rules}) {
    EXPECT_TRUE(verify(list_, file_));
    EXPECT_FALSE(verify(missing_, file_));
    EXPECT_FALSE(verify(list_, missing_));
  }
}

// Whether there are new rules

struct AnnouncementCase {
  const char* name;
  std::optional<std::string> record;
  std::string list;
  bool announces;
};

class RulesAnnouncement : public PublishedDigest, public WithParamInterface<AnnouncementCase> {};

TEST_P(RulesAnnouncement, IsComparedWithTheRecordAsAWholeText) {
  const std::string record = dir_ / "record";
  if (GetParam().record) write_file(record, *GetParam().record);
  publish(GetParam().list);
  const std::optional<std::string> current = published_digest::current_rules(record);
  ASSERT_TRUE(current);
  EXPECT_EQ(published_digest::announces_new_rules(list_, *current), GetParam().announces);
}

const std::string kLongLine(1022, 'x');

const AnnouncementCase kAnnouncements[] = {
    {"Equal", kDigest + "\n", kDigest + "\n", false},
    {"Different", kOtherDigest + "\n", kDigest + "\n", true},
    {"LineFeedOnlyRecorded", kDigest + "\n", kDigest, false},
    {"LineFeedOnlyAnnounced", kDigest, kDigest + "\n", false},
    {"LetterCase", kDigest + "\n", kCapitals + "\n", true},
    {"EqualInCapitals", kCapitals + "\n", kCapitals + "\n", false},
    {"CarriageReturnRecorded", kDigest + "\r\n", kDigest + "\n", true},
    {"CarriageReturnAnnounced", kDigest + "\n", kDigest + "\r\n", true},
    {"CarriageReturnsOnBothSides", kDigest + "\r\n", kDigest + "\r\n", false},
    {"BlankRecorded", kDigest + " \n", kDigest + "\n", true},
    {"BlankAnnounced", kDigest + "\n", " " + kDigest + "\n", true},
    {"Longer", kDigest + "\n", kDigest + "0\n", true},
    {"OnlyTheFirstLineIsRecorded", kDigest + "\n" + kOtherDigest + "\n", kDigest + "\n", false},
    {"SecondLineIsNotRecorded", kOtherDigest + "\n" + kDigest + "\n", kDigest + "\n", true},
    {"TwoLines", kOtherDigest + "\n", kDigest + "\nnorvak_default_rule.xml\n", false},
    {"TwoLinesWithoutTheLastLineFeed", kOtherDigest + "\n", kDigest + "\nx", false},
    {"TrailingEmptyLine", kOtherDigest + "\n", kDigest + "\n\n", false},
    {"NothingAnnounced", kOtherDigest + "\n", "", false},
    {"NoRecord", std::nullopt, kDigest + "\n", true},
    {"NoRecordAndOneLineFeed", std::nullopt, "\n", false},
    {"EmptyRecord", "", kDigest + "\n", true},
    {"EmptyRecordAndOneLineFeed", "", "\n", false},
    {"RecordAndOneLineFeed", kDigest + "\n", "\n", true},
    {"RecordIsCutAfter1023Characters", kLongLine + "abc\n", kLongLine + "a", false},
    {"RecordedLineFeedAsThe1023rdCharacter", kLongLine + "\n", kLongLine + "\n", false},
    {"OnePieceOf1023CharactersAnnounced", kDigest + "\n", kLongLine + "a", true},
    {"TwoPiecesAnnounced", kOtherDigest + "\n", kLongLine + "ab", false},
    {"LineFeedAnnouncedAsASecondPiece", kOtherDigest + "\n", kLongLine + "a\n", false},
};

INSTANTIATE_TEST_SUITE_P(Records, RulesAnnouncement, ValuesIn(kAnnouncements), case_name);

TEST_F(PublishedDigest, ARecordThatCannotBeReadGivesNoDigest) {
  EXPECT_EQ(published_digest::current_rules(dir_.path()), std::nullopt);
}

// Whether a build is installed

struct BuildCase {
  const char* name;
  std::optional<std::string> installed;
  std::optional<std::string> published;
  bool same;
};

class NginxBuild : public PublishedDigest, public WithParamInterface<BuildCase> {};

TEST_P(NginxBuild, IsTheSameIfItsFirstLineIs) {
  const std::string installed = dir_ / "installed";
  if (GetParam().installed) write_file(installed, *GetParam().installed);
  if (GetParam().published) publish(*GetParam().published);
  EXPECT_EQ(published_digest::same_nginx_build(installed, list_), GetParam().same);
}

const std::string kLine126(126, 'x');

const BuildCase kBuilds[] = {
    {"Equal", "build 7\n", "build 7\n", true},
    {"Different", "build 7\n", "build 8\n", false},
    {"EqualWithoutLineFeeds", "build 7", "build 7", true},
    {"LineFeedOnlyPublished", "build 7", "build 7\n", false},
    {"LineFeedOnlyInstalled", "build 7\n", "build 7", false},
    {"CarriageReturn", "build 7\n", "build 7\r\n", false},
    {"BlankAfter", "build 7\n", "build 7 \n", false},
    {"LetterCase", "build a\n", "build A\n", false},
    {"LongerText", "build 7", "build 77", false},
    {"LaterLinesAreIgnored", "build 7\none\n", "build 7\ntwo\n", true},
    {"SecondLineInsteadOfTheFirst", "\nbuild 7\n", "build 7\n", false},
    {"NothingInstalled", std::nullopt, "build 7\n", false},
    {"NothingAtAll", std::nullopt, std::nullopt, false},
    {"NothingInstalledButEmptyPublished", std::nullopt, "", false},
    {"NothingPublishedIsAnEmptyText", "", std::nullopt, true},
    {"NothingPublished", "build 7\n", std::nullopt, false},
    {"EmptyAndALineFeed", "", "\n", false},
    {"DifferentAfter127Characters", kLine126 + "aone", kLine126 + "atwo", true},
    {"DifferentAsThe127thCharacter", kLine126 + "a", kLine126 + "b", false},
    {"LineFeedAfter127Characters", kLine126 + "a\n", kLine126 + "a", true},
};

INSTANTIATE_TEST_SUITE_P(Lines, NginxBuild, ValuesIn(kBuilds), case_name);

TEST_F(PublishedDigest, AnInstalledBuildThatCannotBeReadHasAnEmptyLine) {
  publish("");
  EXPECT_TRUE(published_digest::same_nginx_build(dir_.path(), list_));
  publish("build 7\n");
  EXPECT_FALSE(published_digest::same_nginx_build(dir_.path(), list_));
}

}  // namespace
