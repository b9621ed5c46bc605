#include "update_nginx.h"

#include <sys/stat.h>
#include <unistd.h>

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
using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::ScopedUmask;
using test_support::UpdaterTest;
using test_support::write_file;
using testing::TestWithParam;
using testing::Values;
using testing::WithParamInterface;
using Lines = std::vector<std::string>;

namespace {

constexpr char kOldProgram[] = "\177ELF old program";
constexpr char kProgram[] = "\177ELF program";
constexpr char kOldLine[] = "nginx 1.20 build 7\n";
constexpr char kLine[] = "nginx 1.22 build 1\n";

constexpr char kServerLine[] = "/nginx_new/x64/1.22/md5";
constexpr char kServerProgram[] = "/nginx_new/x64/1.22/nginx";

constexpr char kNotNew[] = "[NGINX]is not new version";
constexpr char kNew[] = "[NGINX]new version is exist, download now";

/// A host with an installed web server program, and a newer one on the server.
class UpdateNginx : public UpdaterTest {
 protected:
  void SetUp() override {
    UpdaterTest::SetUp();
    if (IsSkipped()) return;
    write_config({{"nginx_update_host", server_address()}});
    write_file(program(), kOldProgram);
    write_file(line(), kOldLine);
    server_.reply(kServerLine, kLine);
    server_.reply(kServerProgram, kProgram);
    (void)updater_.init();
  }

  [[nodiscard]] std::string program() const { return agent("nginx/bin/nginx"); }
  [[nodiscard]] std::string line() const { return agent("nginx/md5"); }

  [[nodiscard]] int download() { return updater_.download_nginx("1.22", "64-bit"); }

  void expect_installed(const std::string& expected_program, const std::string& expected_line) {
    EXPECT_EQ(read_file(program()), expected_program);
    EXPECT_EQ(read_file(line()), expected_line);
  }

  CUpdateNginxImpl updater_;
};

// The word size

struct WordSizeCase {
  const char* name;
  const char* word_size;
  const char* arch;
};

class UpdateNginxWordSize : public TestWithParam<WordSizeCase> {};

TEST_P(UpdateNginxWordSize, ChoosesTheDirectory) {
  EXPECT_EQ(CUpdateNginxImpl::get_nginx_arch(GetParam().word_size), GetParam().arch);
}

INSTANTIATE_TEST_SUITE_P(
    WordSizes, UpdateNginxWordSize,
    Values(WordSizeCase{"Bit64", "64-bit", "x64"}, WordSizeCase{"Capitals", "64-BIT", "x64"},
           WordSizeCase{"MixedCase", "64-bIt", "x64"}, WordSizeCase{"Bit32", "32-bit", "x86"},
           WordSizeCase{"NoHyphen", "64bit", "x86"}, WordSizeCase{"X86_64", "x86_64", "x86"},
           WordSizeCase{"Empty", "", "x86"}, WordSizeCase{"BlankBefore", " 64-bit", "x86"},
           WordSizeCase{"Longer", "64-bits", "x86"}, WordSizeCase{"Shorter", "64-bi", "x86"}),
    case_name);

TEST_F(UpdateNginx, TheWordSizeChoosesWhatIsDownloaded) {
  (void)updater_.download_nginx("1.22", "32-bit");
  EXPECT_EQ(server_.requests(), gets({"/nginx_new/x86/1.22/md5", "/nginx_new/x86/1.22/nginx"}));
}

// Programs

struct ProgramCase {
  const char* name;
  std::string contents;
  bool is_elf;
};

class UpdateNginxProgram : public UpdateNginx, public WithParamInterface<ProgramCase> {};

TEST_P(UpdateNginxProgram, IsRecognisedByItsSecondToFourthByte) {
  write_file(agent("file"), GetParam().contents);
  EXPECT_EQ(CUpdateNginxImpl::is_elf(agent("file").c_str()), GetParam().is_elf);
}

INSTANTIATE_TEST_SUITE_P(
    Programs, UpdateNginxProgram,
    Values(ProgramCase{"Elf", "\177ELF\002\001", true}, ProgramCase{"FourBytes", "\177ELF", true},
           ProgramCase{"SmallLetters", "\177elf", true}, ProgramCase{"MixedCase", "\177eLf", true},
           ProgramCase{"AnyFirstByte", "<ELF>", true},
           ProgramCase{"ZeroAsFirstByte", std::string("\0ELF", 4), true},
           ProgramCase{"AWordThatEndsSo", "self-made", true},
           ProgramCase{"NoFirstByte", "ELF\002", false},
           ProgramCase{"OneByteLater", "\177\177ELF", false},
           ProgramCase{"ThreeBytes", "\177EL", false}, ProgramCase{"Empty", "", false},
           ProgramCase{"ZeroAmongThem", std::string("\177E\0LF", 5), false},
           ProgramCase{"ErrorPage", "<html><h1>404</h1></html>\n", false}),
    case_name);

TEST_F(UpdateNginx, AMissingFileIsNotAProgram) {
  EXPECT_FALSE(CUpdateNginxImpl::is_elf(agent("missing").c_str()));
}

TEST_F(UpdateNginx, ADirectoryIsNotAProgram) {
  EXPECT_FALSE(CUpdateNginxImpl::is_elf(install_path().c_str()));
}

// The configuration

TEST_F(UpdateNginx, TheServerAddressIsUsedUnchanged) {
  write_config({{"NGINX_UPDATE_HOST", "a"},
                {"kernel_update_host", "b"},
                {"nginx_update_host", " http://host/path/ "},
                {"nginx_update_host", "c"}});
  EXPECT_EQ(updater_.get_url_from_xml(), " http://host/path/ ");
}

TEST_F(UpdateNginx, WithoutTheServersSettingNothingIsDownloaded) {
  write_config({{"kernel_update_host", server_address()}});
  EXPECT_EQ(updater_.get_url_from_xml(), "");
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(server_.requests(), Lines());
  EXPECT_EQ(log_messages(), Lines());
  expect_installed(kOldProgram, kOldLine);
}

TEST_F(UpdateNginx, WithoutAConfigurationNothingIsDownloaded) {
  ASSERT_EQ(::unlink(agent("config.xml").c_str()), 0);
  EXPECT_EQ(updater_.get_url_from_xml(), "");
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(server_.requests(), Lines());
  EXPECT_EQ(log_messages(), Lines());
}

// The download

TEST_F(UpdateNginx, ANewBuildReplacesTheInstalledOne) {
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(server_.requests(), gets({kServerLine, kServerProgram}));
  EXPECT_EQ(log_messages(), Lines({kNew}));
  expect_installed(kProgram, kLine);
  EXPECT_EQ(names_in(agent("update_norvak_nginx")), Lines());
}

TEST_F(UpdateNginx, TheInstalledBuildIsNotDownloadedAgain) {
  write_file(line(), kLine);
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(server_.requests(), gets({kServerLine}));
  EXPECT_EQ(log_messages(), Lines({kNotNew}));
  expect_installed(kOldProgram, kLine);
}

TEST_F(UpdateNginx, WithoutAnInstalledLineTheBuildIsInstalled) {
  ASSERT_EQ(::unlink(line().c_str()), 0);
  EXPECT_EQ(download(), 0);
  expect_installed(kProgram, kLine);
}

TEST_F(UpdateNginx, ALineFeedOnOneSideOnlyInstallsTheSameBuildAgain) {
  write_file(line(), "nginx 1.22 build 1");
  EXPECT_EQ(download(), 0);
  expect_installed(kProgram, kLine);
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(log_messages(), Lines({kNew, kNotNew}));
}

TEST_F(UpdateNginx, BothFilesGetThePermissionsOfNewOnes) {
  const ScopedUmask umask(027);
  ASSERT_EQ(::chmod(program().c_str(), 0755), 0);
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(mode_of(program()), 0640U);
  EXPECT_EQ(mode_of(line()), 0640U);
}

TEST_F(UpdateNginx, TheProgramIsInstalledBeforeItsLine) {
  const DirectoryWatch watch({agent("nginx"), agent("nginx/bin")});
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(watch.events({"nginx", "md5"}),
            Lines({"delete nginx", "create nginx", "delete md5", "create md5"}));
}

TEST_F(UpdateNginx, AFailedInstallationOfTheProgramGoesUnnoticed) {
  ASSERT_EQ(::unlink(program().c_str()), 0);
  make_full_directory(program());
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(log_messages(), Lines({kNew}));
  EXPECT_EQ(names_in(program()), Lines({"occupant"}));
  EXPECT_EQ(read_file(line()), kLine);
}

TEST_F(UpdateNginx, AfterAFailedInstallationOfTheLineTheBuildIsInstalledAgain) {
  ASSERT_EQ(::unlink(line().c_str()), 0);
  make_full_directory(line());
  for (int run = 0; run < 2; ++run) {
    write_file(program(), kOldProgram);
    EXPECT_EQ(download(), 0);
    EXPECT_EQ(read_file(program()), kProgram);
  }
  EXPECT_EQ(log_messages(), Lines({kNew, kNew}));
  EXPECT_EQ(names_in(line()), Lines({"occupant"}));
}

TEST_F(UpdateNginx, ALineThatCannotBeDownloadedLeavesTheInstalledBuild) {
  reply_cut_short(kServerLine);
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(server_.requests(), gets({kServerLine}));
  EXPECT_EQ(log_messages(), Lines({kCutShort}));
  expect_installed(kOldProgram, kOldLine);
}

TEST_F(UpdateNginx, AProgramThatCannotBeDownloadedLeavesTheInstalledBuild) {
  server_.reply_raw(kServerProgram,
                    "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + std::string(kProgram));
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(server_.requests(), gets({kServerLine, kServerProgram}));
  EXPECT_EQ(log_messages(), Lines({kNew, kCutShort}));
  expect_installed(kOldProgram, kOldLine);
}

TEST_F(UpdateNginx, AnErrorPageInsteadOfTheProgramIsNotInstalled) {
  server_.reply(kServerProgram, "<html><h1>500</h1></html>\n", 500);
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(log_messages(), Lines({kNew}));
  expect_installed(kOldProgram, kOldLine);
}

TEST_F(UpdateNginx, AnErrorPageInsteadOfTheLineCountsAsOne) {
  server_.reply(kServerLine, "no such build\n", 404);
  EXPECT_EQ(download(), 0);
  expect_installed(kProgram, "no such build\n");
}

TEST_F(UpdateNginx, ADownloadWithoutALineLeavesNone) {
  reply_empty(kServerLine);
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(read_file(program()), kProgram);
  EXPECT_FALSE(exists(line()));
}

// The address

TEST_F(UpdateNginx, TheVersionIsInsertedUnescaped) {
  EXPECT_EQ(updater_.download_nginx("1.22%2F/a+b&c;?d=", "64-bit"), -1);
  EXPECT_EQ(server_.requests(), gets({"/nginx_new/x64/1.22%2F/a+b&c;?d=/md5",
                                      "/nginx_new/x64/1.22%2F/a+b&c;?d=/nginx"}));
}

TEST_F(UpdateNginx, AnEmptyVersionLeavesTwoSlashes) {
  EXPECT_EQ(updater_.download_nginx("", "32-bit"), -1);
  EXPECT_EQ(server_.requests(), gets({"/nginx_new/x86//md5", "/nginx_new/x86//nginx"}));
}

TEST_F(UpdateNginx, TheAddressIsUsedWithItsPath) {
  write_config({{"nginx_update_host", server_.url("/mirror/")}});
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(server_.requests(),
            gets({"/mirror//nginx_new/x64/1.22/md5", "/mirror//nginx_new/x64/1.22/nginx"}));
}

}  // namespace
