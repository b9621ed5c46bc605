#include "update_rule.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "test_support.h"
#include "updater_support.h"

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

TEST_F(UpdateRule, TheRecordedDigestMeansNoUpdate) {
  write_file(current(), kMd5 + "\n");
  EXPECT_FALSE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(server_.requests(), gets({kServerMd5}));
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateRule, WithoutARecordThereIsAnUpdate) {
  ASSERT_EQ(::unlink(current().c_str()), 0);
  EXPECT_TRUE(updater_.check_tarn_rules_md5());
}

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

TEST_F(UpdateRule, ADigestInCapitalsPassesTheCheckButNotTheVerification) {
  write_file(current(), kMd5 + "\n");
  server_.reply(kServerMd5, kCapitalMd5 + "\n");
  ASSERT_TRUE(updater_.check_tarn_rules_md5());
  EXPECT_EQ(updater_.download_tarn_rules_file(), -1);
  EXPECT_EQ(log_messages(), Lines({kRefused}));
  EXPECT_EQ(read_file(rules()), kOldRules);
  EXPECT_EQ(read_file(downloaded_rules()), kRules);
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
