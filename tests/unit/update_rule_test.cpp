#include "update_rule.h"

#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "test_support.h"
#include "updater_support.h"

using test_support::case_name;
using test_support::DirectoryWatch;
using test_support::exists;
using test_support::gets;
using test_support::kCutShort;
using test_support::make_full_directory;
using test_support::make_unopenable;
using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::ScopedUmask;
using test_support::UpdaterTest;
using test_support::write_file;
using testing::ValuesIn;
using testing::WithParamInterface;
using Lines = std::vector<std::string>;

namespace {

constexpr char kServerMd5[] = "/tarn_rule/md5";
constexpr char kServerRules[] = "/tarn_rule/norvak_default_rule.xml";

constexpr char kOldRules[] = "<rules>old</rules>\n";
constexpr char kRules[] = "hello\n";
const std::string kMd5("b1946ac92492d2347c6235b4d2611184");  // of kRules
const std::string kCapitalMd5("B1946AC92492D2347C6235B4D2611184");
const std::string kOtherMd5("d41d8cd98f00b204e9800998ecf8427e");

constexpr char kVerified[] = "download_tarn_rules_file: check download rule MD5 success";
constexpr char kRefused[] = "download_tarn_rules_file: check download rule MD5 false";

/// A host with both engine modules and old rules, and newer rules on the server.
class UpdateRule : public UpdaterTest {
 protected:
  void SetUp() override {
    UpdaterTest::SetUp();
    if (IsSkipped()) return;
    write_config({{"kernel_update_host", server_address()}});
    write_file(agent("tessel_linux.ko"), "");
    write_file(agent("quorin_linux.ko"), "");
    write_file(current(), kOtherMd5 + "\n");
    write_file(rules(), kOldRules);
    server_.reply(kServerMd5, kMd5 + "\n");
    server_.reply(kServerRules, kRules);
    (void)updater_.init();
  }

  [[nodiscard]] std::string current() const { return agent("template/system_rule.dat"); }
  [[nodiscard]] std::string rules() const { return agent("template/norvak_default_rule.xml"); }
  [[nodiscard]] std::string downloaded_md5() const { return agent("update_norvak_rule/rule_md5"); }
  [[nodiscard]] std::string downloaded_rules() const { return agent("update_norvak_rule/rule"); }

  CUpdateRuleImpl updater_;
};

// The check

TEST_F(UpdateRule, AnotherDigestOnTheServerMeansAnUpdate) {
  EXPECT_TRUE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(server_.requests(), gets({kServerMd5}));
  EXPECT_EQ(read_file(downloaded_md5()), kMd5 + "\n");
  EXPECT_EQ(log_messages(), Lines());
  EXPECT_EQ(read_file(current()), kOtherMd5 + "\n");
  EXPECT_EQ(read_file(rules()), kOldRules);
}

struct DigestCase {
  const char* name;
  std::optional<std::string> current;  ///< template/system_rule.dat
  std::string announced;               ///< the server's text
  bool update;
};

class UpdateRuleDigest : public UpdateRule, public WithParamInterface<DigestCase> {};

TEST_P(UpdateRuleDigest, IsComparedAsAWholeText) {
  ASSERT_EQ(::unlink(current().c_str()), 0);
  if (GetParam().current) write_file(current(), *GetParam().current);
  server_.reply(kServerMd5, GetParam().announced);
  EXPECT_EQ(updater_.check_tarn_rules_md5(), GetParam().update);
  EXPECT_EQ(server_.requests(), gets({kServerMd5}));
  EXPECT_EQ(log_messages(), Lines());
}

const std::string kLongLine(1022, 'x');

const DigestCase kDigests[] = {
    {"Equal", kMd5 + "\n", kMd5 + "\n", false},
    {"Different", kOtherMd5 + "\n", kMd5 + "\n", true},
    {"LineFeedOnlyInstalled", kMd5 + "\n", kMd5, false},
    {"LineFeedOnlyAnnounced", kMd5, kMd5 + "\n", false},
    {"LetterCase", kMd5 + "\n", kCapitalMd5 + "\n", true},
    {"EqualInCapitals", kCapitalMd5 + "\n", kCapitalMd5 + "\n", false},
    {"CarriageReturnInstalled", kMd5 + "\r\n", kMd5 + "\n", true},
    {"CarriageReturnAnnounced", kMd5 + "\n", kMd5 + "\r\n", true},
    {"CarriageReturnsOnBothSides", kMd5 + "\r\n", kMd5 + "\r\n", false},
    {"BlankInstalled", kMd5 + " \n", kMd5 + "\n", true},
    {"BlankAnnounced", kMd5 + "\n", " " + kMd5 + "\n", true},
    {"Longer", kMd5 + "\n", kMd5 + "0\n", true},
    {"OnlyTheFirstLineIsInstalled", kMd5 + "\n" + kOtherMd5 + "\n", kMd5 + "\n", false},
    {"SecondLineIsNotInstalled", kOtherMd5 + "\n" + kMd5 + "\n", kMd5 + "\n", true},
    {"TwoLines", kOtherMd5 + "\n", kMd5 + "\nnorvak_default_rule.xml\n", false},
    {"TwoLinesWithoutTheLastLineFeed", kOtherMd5 + "\n", kMd5 + "\nx", false},
    {"TrailingEmptyLine", kOtherMd5 + "\n", kMd5 + "\n\n", false},
    {"NothingInstalled", std::nullopt, kMd5 + "\n", true},
    {"NothingInstalledAndOneLineFeed", std::nullopt, "\n", false},
    {"EmptyInstalled", "", kMd5 + "\n", true},
    {"EmptyInstalledAndOneLineFeed", "", "\n", false},
    {"InstalledAndOneLineFeed", kMd5 + "\n", "\n", true},
    {"InstalledIsCutAfter1023Characters", kLongLine + "abc\n", kLongLine + "a", false},
    {"InstalledLineFeedAsThe1023rdCharacter", kLongLine + "\n", kLongLine + "\n", false},
    {"OnePieceOf1023CharactersAnnounced", kMd5 + "\n", kLongLine + "a", true},
    {"TwoPiecesAnnounced", kOtherMd5 + "\n", kLongLine + "ab", false},
    {"LineFeedAnnouncedAsASecondPiece", kOtherMd5 + "\n", kLongLine + "a\n", false},
};

INSTANTIATE_TEST_SUITE_P(Digests, UpdateRuleDigest, ValuesIn(kDigests), case_name<DigestCase>);

TEST_F(UpdateRule, WithoutTesselThereIsNoUpdate) {
  ASSERT_EQ(::unlink(agent("tessel_linux.ko").c_str()), 0);
  EXPECT_FALSE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(server_.requests(), Lines());
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateRule, WithoutQuorinThereIsNoUpdate) {
  ASSERT_EQ(::unlink(agent("quorin_linux.ko").c_str()), 0);
  EXPECT_FALSE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(server_.requests(), Lines());
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateRule, TheFirstModuleIsNotNeeded) {
  ASSERT_FALSE(exists(agent("norvak_ipfilter.ko")));
  EXPECT_TRUE(updater_.check_tarn_rules_md5());
}

TEST_F(UpdateRule, ACurrentDigestThatCannotBeOpenedMeansNoUpdate) {
  ASSERT_EQ(::unlink(current().c_str()), 0);
  make_unopenable(current());
  EXPECT_FALSE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(server_.requests(), Lines());
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateRule, ADigestThatCannotBeDownloadedMeansNoUpdate) {
  reply_cut_short(kServerMd5);
  EXPECT_FALSE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(log_messages(), Lines({kCutShort}));
}

TEST_F(UpdateRule, AnEmptyReplyMeansNoUpdate) {
  write_file(downloaded_md5(), kMd5);  // left by an earlier run
  reply_empty(kServerMd5);
  EXPECT_FALSE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(log_messages(), Lines());
}

/// An empty reply leaves no file. To get an empty text, a directory has its name: it cannot be
/// deleted, but opened.
TEST_F(UpdateRule, ADigestTextWithoutALineMeansNoUpdate) {
  make_full_directory(downloaded_md5());
  reply_empty(kServerMd5);
  EXPECT_FALSE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(server_.requests(), gets({kServerMd5}));
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateRule, AnErrorPageOfSeveralLinesMeansNoUpdate) {
  server_.reply(kServerMd5, "<html>\n<h1>500</h1>\n</html>\n", 500);
  EXPECT_FALSE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(log_messages(), Lines());
}

// The configuration

TEST_F(UpdateRule, TheServerIsTheOneOfTheKernelModules) {
  write_config({{"rule_update_host", "a"},
                {"Kernel_Update_Host", "b"},
                {"kernel_update_host", " http://host/path/ "},
                {"kernel_update_host", "c"}});
  EXPECT_EQ(updater_.get_url_from_xml(), " http://host/path/ ");
}

TEST_F(UpdateRule, WithoutAConfigurationThereIsNoServerAddress) {
  ASSERT_EQ(::unlink(agent("config.xml").c_str()), 0);
  EXPECT_EQ(updater_.get_url_from_xml(), "");
}

TEST_F(UpdateRule, WithoutAServerAddressTheBarePathsAreRequested) {
  write_config({});
  EXPECT_EQ(updater_.get_url_from_xml(), "");
  EXPECT_FALSE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(updater_.download_tarn_rules_file(), -1);
  // Paths such as "/tarn_rule/md5" are not URLs.
  constexpr char kNoUrl[] = "CUrlOp::url_down_file: curl_easy_perform failed[3]";
  EXPECT_EQ(log_messages(), Lines({kNoUrl, kNoUrl}));
  EXPECT_EQ(read_file(rules()), kOldRules);
}

TEST_F(UpdateRule, TheAddressIsUsedWithItsPath) {
  write_config({{"kernel_update_host", server_.url("/mirror/")}});
  (void)updater_.check_tarn_rules_md5();
  (void)updater_.download_tarn_rules_file();
  EXPECT_EQ(server_.requests(),
            gets({"/mirror//tarn_rule/md5", "/mirror//tarn_rule/norvak_default_rule.xml"}));
}

// The download

TEST_F(UpdateRule, VerifiedRulesReplaceTheInstalledOnes) {
  ASSERT_TRUE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(updater_.download_tarn_rules_file(), 0);
  EXPECT_EQ(server_.requests(), gets({kServerMd5, kServerRules}));
  EXPECT_EQ(log_messages(), Lines({kVerified}));
  EXPECT_EQ(read_file(rules()), kRules);
  EXPECT_EQ(names_in(agent("update_norvak_rule")), Lines({"rule_md5"}));
}

TEST_F(UpdateRule, TheSuccessIsLoggedBeforeTheRulesAreMoved) {
  write_file(downloaded_md5(), kMd5);
  const DirectoryWatch watch({agent("template"), agent("runlog")});
  EXPECT_EQ(updater_.download_tarn_rules_file(), 0);
  EXPECT_EQ(log_messages(), Lines({kVerified}));
  EXPECT_EQ(watch.events({"update.log", "norvak_default_rule.xml"}),
            Lines({"create update.log", "delete norvak_default_rule.xml",
                   "create norvak_default_rule.xml"}));
}

TEST_F(UpdateRule, TheRecordedDigestIsLeftAlone) {
  struct stat before = {};
  ASSERT_EQ(::stat(current().c_str(), &before), 0);
  ASSERT_TRUE(updater_.check_tarn_rules_md5());
  ASSERT_EQ(updater_.download_tarn_rules_file(), 0);
  struct stat after = {};
  ASSERT_EQ(::stat(current().c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_EQ(read_file(current()), kOtherMd5 + "\n");
  EXPECT_TRUE(updater_.check_tarn_rules_md5());  // the next run installs the rules again
}

TEST_F(UpdateRule, TheRulesGetThePermissionsOfANewFile) {
  const ScopedUmask umask(027);
  ASSERT_EQ(::unlink(rules().c_str()), 0);
  write_file(downloaded_md5(), kMd5);
  EXPECT_EQ(updater_.download_tarn_rules_file(), 0);
  EXPECT_EQ(mode_of(rules()), 0640U);
}

struct VerificationCase {
  const char* name;
  std::string announced;
  bool verified;
};

class UpdateRuleVerification : public UpdateRule, public WithParamInterface<VerificationCase> {};

TEST_P(UpdateRuleVerification, ComparesTheFirstLineExactly) {
  write_file(downloaded_md5(), GetParam().announced);
  write_file(downloaded_rules(), kRules);
  EXPECT_EQ(updater_.check_download_rule_md5(), GetParam().verified);
  EXPECT_EQ(log_messages(), Lines());
}

TEST_P(UpdateRuleVerification, DecidesWhetherTheRulesAreInstalled) {
  write_file(downloaded_md5(), GetParam().announced);
  EXPECT_EQ(updater_.download_tarn_rules_file(), GetParam().verified ? 0 : -1);
  EXPECT_EQ(log_messages(), Lines({GetParam().verified ? kVerified : kRefused}));
  EXPECT_EQ(read_file(rules()), GetParam().verified ? kRules : kOldRules);
  EXPECT_EQ(exists(downloaded_rules()), !GetParam().verified);
}

const VerificationCase kVerifications[] = {
    {"LineFeed", kMd5 + "\n", true},
    {"NoLineFeed", kMd5, true},
    {"LaterLinesAreIgnored", kMd5 + "\nanything\n", true},
    {"OtherDigest", kOtherMd5 + "\n", false},
    {"Capitals", kCapitalMd5 + "\n", false},
    {"CarriageReturn", kMd5 + "\r\n", false},
    {"BlankBefore", " " + kMd5 + "\n", false},
    {"BlankAfter", kMd5 + " \n", false},
    {"TextAfterTheDigest", kMd5 + "  norvak_default_rule.xml\n", false},
    {"TooShort", kMd5.substr(0, 31) + "\n", false},
    {"DigestInTheSecondLine", "\n" + kMd5 + "\n", false},
    {"DigestAfterManyBlanks", std::string(127, ' ') + kMd5 + "\n", false},
    {"Empty", "", false},
};

INSTANTIATE_TEST_SUITE_P(Announcements, UpdateRuleVerification, ValuesIn(kVerifications),
                         case_name<VerificationCase>);

TEST_F(UpdateRule, WithoutADigestNothingIsVerified) {
  write_file(downloaded_rules(), kRules);
  EXPECT_FALSE(updater_.check_download_rule_md5());
}

TEST_F(UpdateRule, MissingRulesAreNotVerified) {
  write_file(downloaded_md5(), kMd5);
  EXPECT_FALSE(updater_.check_download_rule_md5());
}

TEST_F(UpdateRule, ADigestInCapitalsPassesTheCheckButNotTheVerification) {
  write_file(current(), kMd5 + "\n");
  server_.reply(kServerMd5, kCapitalMd5 + "\n");
  ASSERT_TRUE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(updater_.download_tarn_rules_file(), -1);
  EXPECT_EQ(log_messages(), Lines({kRefused}));
  EXPECT_EQ(read_file(rules()), kOldRules);
}

TEST_F(UpdateRule, RulesThatCannotBeDownloadedAreNotInstalled) {
  write_file(downloaded_md5(), kMd5 + "\n");
  reply_cut_short(kServerRules);
  EXPECT_EQ(updater_.download_tarn_rules_file(), -1);
  EXPECT_EQ(log_messages(), Lines({kCutShort}));
  EXPECT_EQ(read_file(rules()), kOldRules);
}

TEST_F(UpdateRule, AnErrorPageIsNotInstalled) {
  write_file(downloaded_md5(), kMd5 + "\n");
  server_.reply(kServerRules, "<html><h1>500</h1></html>\n", 500);
  EXPECT_EQ(updater_.download_tarn_rules_file(), -1);
  EXPECT_EQ(log_messages(), Lines({kRefused}));
  EXPECT_EQ(read_file(rules()), kOldRules);
}

TEST_F(UpdateRule, EmptyRulesAreNotInstalled) {
  write_file(downloaded_md5(), kMd5 + "\n");
  write_file(downloaded_rules(), kRules);  // left by an earlier run
  reply_empty(kServerRules);
  EXPECT_EQ(updater_.download_tarn_rules_file(), -1);
  EXPECT_EQ(log_messages(), Lines({kRefused}));
  EXPECT_EQ(read_file(rules()), kOldRules);
}

TEST_F(UpdateRule, AFailedInstallationGoesUnnoticed) {
  ASSERT_EQ(::unlink(rules().c_str()), 0);
  make_full_directory(rules());
  write_file(downloaded_md5(), kMd5 + "\n");
  EXPECT_EQ(updater_.download_tarn_rules_file(), 0);
  EXPECT_EQ(log_messages(), Lines({kVerified}));
  EXPECT_EQ(names_in(rules()), Lines({"occupant"}));
  EXPECT_EQ(read_file(downloaded_rules()), kRules);
}

TEST_F(UpdateRule, AMissingTemplateDirectoryIsNotCreated) {
  test_support::write_install_path(agent("other") + "\n");
  write_file(agent("other/config.xml"), read_file(agent("config.xml")));
  (void)updater_.init();
  write_file(agent("other/update_norvak_rule/rule_md5"), kMd5 + "\n");
  EXPECT_EQ(updater_.download_tarn_rules_file(), 0);
  EXPECT_EQ(names_in(agent("other")), Lines({"config.xml", "update_norvak_rule"}));
}

}  // namespace
