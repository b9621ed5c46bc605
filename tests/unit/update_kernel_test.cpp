#include "update_kernel.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fake_uname.h"
#include "faults.h"
#include "test_support.h"
#include "updater_support.h"

using test_support::case_name;
using test_support::DirectoryWatch;
using test_support::exists;
using test_support::FakeUname;
using test_support::FileMount;
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
using testing::ValuesIn;
using testing::WithParamInterface;
using KernelInfo = CUpdateKernelImpl::KernelInfo;
using Lines = std::vector<std::string>;

namespace {

constexpr int kCentos = 1;
constexpr int kSuse = 2;
constexpr int kUbuntu = 3;

constexpr char kOldModule[] = "old module\n";
constexpr char kModule[] = "hello\n";
const std::string kMd5("b1946ac92492d2347c6235b4d2611184");  // of kModule

// The default host of these tests.
constexpr char kMachine[] = "x86_64";
constexpr char kRelease[] = "2.6.32-431.el6.x86_64";
constexpr char kTesselList[] = "/kernels/centos/x64/2.6.32-431/tessel_linux/md5";
constexpr char kTesselFile[] = "/kernels/centos/x64/2.6.32-431/tessel_linux/tessel_linux.ko";
constexpr char kQuorinList[] = "/kernels/centos/x64/2.6.32-431/quorin_linux/md5";
constexpr char kQuorinFile[] = "/kernels/centos/x64/2.6.32-431/quorin_linux/quorin_linux.ko";

constexpr char kTesselVerified[] = "[KERNEL] check download tessel_linux kernel MD5 success";
constexpr char kTesselRefused[] = "[KERNEL] check download tessel_linux kernel MD5 false";
constexpr char kAbnormal[] = "[KERNEL] download MD5 file is abnormal";

/// A CentOS 6 host, whose configuration names the test's server.
class UpdateKernel : public UpdaterTest {
 protected:
  void SetUp() override {
    UpdaterTest::SetUp();
    if (IsSkipped()) return;
    write_config({{"kernel_update_host", server_address()}});
    (void)updater_.init();
  }

  [[nodiscard]] std::string list_path() const { return agent("update_norvak_kernel/md5"); }
  [[nodiscard]] std::string download_path() const { return agent("update_norvak_kernel/kernel"); }
  [[nodiscard]] std::string tessel() const { return agent("tessel_linux.ko"); }
  [[nodiscard]] std::string quorin() const { return agent("quorin_linux.ko"); }
  [[nodiscard]] std::string record() const { return agent("runlog/kernel_version"); }

  void expect_nothing_is_done() {
    write_file(record(), "old record");
    EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 1);
    EXPECT_EQ(updater_.download_kernel("tessel_linux"), 1);
    EXPECT_EQ(server_.requests(), Lines());
    EXPECT_EQ(log_messages(), Lines());
    EXPECT_EQ(read_file(record()), "old record");
    EXPECT_EQ(names_in(agent("update_norvak_kernel")), Lines());
  }

  const FakeUname host_{kMachine, kRelease};
  CUpdateKernelImpl updater_;
};

// The host

TEST_F(UpdateKernel, MarkerFilesInTheInstallDirectoryNameTheDistribution) {
  EXPECT_EQ(updater_.get_os_type(), "centos");
  write_file(agent("suse"), "");
  EXPECT_EQ(updater_.get_os_type(), "suse");
}

TEST(UpdateKernelHost, MachineNameAndReleaseAreThoseOfUname) {
  const FakeUname host("i686", "2.6.18-164.el5xen");
  EXPECT_EQ(CUpdateKernelImpl().get_local_os_arch(), "x86");
  KernelInfo info;
  CUpdateKernelImpl().get_local_kernel_version(kCentos, info);
  EXPECT_EQ(info.version, "2.6.18-164");
  EXPECT_EQ(info.flavour, "xen");
}

TEST(UpdateKernelHost, WithoutUnameHasNoArch) {
  const FakeUname host = FakeUname::failing();
  EXPECT_EQ(CUpdateKernelImpl().get_local_os_arch(), "");
}

TEST(UpdateKernelHost, WithoutUnameKeepsTheOldKernel) {
  const FakeUname host = FakeUname::failing();
  for (const int os_code : {kCentos, kSuse, kUbuntu}) {
    KernelInfo info{"version", "flavour"};
    CUpdateKernelImpl().get_local_kernel_version(os_code, info);
    EXPECT_EQ(info.version, "version");
    EXPECT_EQ(info.flavour, "flavour");
  }
}

/// A row of the table of real kernels.
struct RealKernel {
  std::string distribution;
  std::string machine;
  std::string release;
  std::string directory;
};

std::vector<RealKernel> real_kernels() {
  std::vector<RealKernel> kernels;
  std::ifstream table(NORVAK_TEST_DATA "/real_kernels.tsv");
  for (std::string line; std::getline(table, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    RealKernel& kernel = kernels.emplace_back();
    std::getline(fields, kernel.distribution, '\t');
    std::getline(fields, kernel.machine, '\t');
    std::getline(fields, kernel.release, '\t');
    std::getline(fields, kernel.directory, '\t');
    EXPECT_NE(kernel.directory, "") << line;
  }
  return kernels;
}

TEST_F(UpdateKernel, RealKernelsLeadToTheirDirectoriesOnTheServer) {
  const std::vector<RealKernel> kernels = real_kernels();
  EXPECT_GE(kernels.size(), 30U);
  for (const RealKernel& kernel : kernels) {
    SCOPED_TRACE(kernel.distribution + " " + kernel.machine + " " + kernel.release);
    const FakeUname host(kernel.machine, kernel.release);
    const std::string list = "/kernels/" + kernel.directory + "/tessel_linux/md5";
    const bool marked = kernel.distribution != "centos";
    if (marked) write_file(agent(kernel.distribution), "");
    server_.reply(list, "digest\n");
    ASSERT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
    EXPECT_EQ(server_.requests().back(), "GET " + list);
    if (marked) (void)::unlink(agent(kernel.distribution).c_str());
  }
}

// Addresses and places

struct UrlCase {
  const char* name;
  int url_kind;
  const char* host;
  const char* os_type;
  const char* version;
  const char* flavour;
  const char* url;
};

class UpdateKernelUrl : public TestWithParam<UrlCase> {};

TEST_P(UpdateKernelUrl, NamesTheModulesDirectory) {
  const UrlCase& url = GetParam();
  EXPECT_EQ(
      CUpdateKernelImpl().build_url_string(url.url_kind, url.host, url.os_type, "x64",
                                           KernelInfo{url.version, url.flavour}, "tessel_linux"),
      url.url);
}

constexpr UrlCase kUrls[] = {
    {"List", 0, "http://host", "centos", "2.6.18-164", "xen",
     "http://host/kernels/centos-xen/x64/2.6.18-164/tessel_linux/md5"},
    {"Module", 1, "http://host", "centos", "2.6.18-164", "xen",
     "http://host/kernels/centos-xen/x64/2.6.18-164/tessel_linux/tessel_linux.ko"},
    {"AnyOtherKindIsTheModule", -2, "http://host", "suse", "3.0.13-0.27", "default",
     "http://host/kernels/suse-default/x64/3.0.13-0.27/tessel_linux/tessel_linux.ko"},
    {"PathPrefix", 0, "http://host:8080/norvak", "ubuntu", "3.2.0-23", "generic",
     "http://host:8080/norvak/kernels/ubuntu-generic/x64/3.2.0-23/tessel_linux/md5"},
    {"ClosingSlashIsDoubled", 0, "http://host/", "centos", "3.10.0", "",
     "http://host//kernels/centos/x64/3.10.0/tessel_linux/md5"},
};

INSTANTIATE_TEST_SUITE_P(Urls, UpdateKernelUrl, ValuesIn(kUrls), case_name);

TEST_F(UpdateKernel, TheServerAddressIsUsedUnchanged) {
  write_config({{"Kernel_update_host", "a"},
                {"update_host", "b"},
                {"kernel_update_host", " ftp://host/path/ "},
                {"kernel_update_host", "c"}});
  EXPECT_EQ(updater_.get_url_from_xml(), " ftp://host/path/ ");
}

TEST_F(UpdateKernel, WithoutTheSettingThereIsNoServerAddress) {
  write_config({{"update_host", "http://host"}});
  EXPECT_EQ(updater_.get_url_from_xml(), "");
}

TEST_F(UpdateKernel, WithoutAConfigurationThereIsNoServerAddress) {
  ASSERT_EQ(::unlink(agent("config.xml").c_str()), 0);
  EXPECT_EQ(updater_.get_url_from_xml(), "");
}

TEST_F(UpdateKernel, ModulesLieDirectlyInTheInstallDirectory) {
  EXPECT_EQ(updater_.get_kernel_full_path("tessel_linux"), install_path() + "/tessel_linux.ko");
}

// The verification

TEST_F(UpdateKernel, AModuleThatCanOnlyBeReadInPartIsNotVerified) {
  write_file(list_path(), kMd5 + "\n");
  write_file(download_path(), kModule);
  ASSERT_TRUE(updater_.check_download_kernel_md5());
  {
    const test_support::ScopedFault fault(test_support::Fault::kReadFails, 3);
    EXPECT_FALSE(updater_.check_download_kernel_md5());
  }
  EXPECT_EQ(log_messages(), Lines());
}

// The check

TEST_F(UpdateKernel, TheCheckRecordsTheVersionAndRequestsOnlyTheList) {
  write_file(tessel(), kModule);
  server_.reply(kTesselList, kMd5 + "\n");
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 1);
  EXPECT_EQ(server_.requests(), gets({kTesselList}));
  EXPECT_EQ(read_file(record()), "2.6.32-431");
  EXPECT_EQ(read_file(list_path()), kMd5 + "\n");
  EXPECT_EQ(read_file(tessel()), kModule);
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateKernel, AModuleThatIsNotInstalledIsNotCurrent) {
  server_.reply(kTesselList, kMd5 + "\n");
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
  EXPECT_FALSE(exists(tessel()));
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateKernel, AListThatCannotBeOpenedFailsTheCheck) {
  write_file(list_path(), "the list of the previous module\n");
  write_file(tessel(), kModule);
  reply_empty(kTesselList);
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), -1);
  EXPECT_EQ(log_messages(), Lines({"[KERNEL] open MD5 template file failed"}));
  EXPECT_EQ(read_file(record()), "2.6.32-431");
  EXPECT_FALSE(exists(list_path()));
}

TEST_F(UpdateKernel, AListThatCannotBeDownloadedFailsTheCheck) {
  write_file(tessel(), kModule);
  reply_cut_short(kTesselList);
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), -1);
  EXPECT_EQ(log_messages(), Lines({kCutShort, "[KERNEL] download tessel_linux MD5 failed"}));
  EXPECT_EQ(read_file(record()), "2.6.32-431");
  EXPECT_EQ(read_file(list_path()), "cut short");
  EXPECT_EQ(read_file(tessel()), kModule);
}

TEST_F(UpdateKernel, WithoutAWorkDirectoryTheCheckFails) {
  updater_.release();
  server_.reply(kTesselList, kMd5 + "\n");
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), -1);
  EXPECT_EQ(log_messages(), Lines({"CUrlOp::url_down_file: curl_easy_perform failed[23]",
                                   "[KERNEL] download tessel_linux MD5 failed"}));
}

TEST_F(UpdateKernel, AnErrorPageOfSeveralLinesIsAnAbnormalList) {
  server_.reply(kTesselList, "<html>\n<h1>500</h1>\n</html>\n", 500);
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), -1);
  EXPECT_EQ(log_messages(), Lines({kAbnormal}));
}

TEST_F(UpdateKernel, AnErrorPageOfOneLineMeansADownload) {
  write_file(tessel(), kModule);
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 0);  // the server has no such file
  EXPECT_EQ(read_file(list_path()), "no such file\n");
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateKernel, EachCheckReplacesTheListOfThePreviousModule) {
  write_file(tessel(), kModule);
  write_file(quorin(), kOldModule);
  server_.reply(kTesselList, kMd5 + "\n");
  server_.reply(kQuorinList, "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 1);
  EXPECT_EQ(updater_.check_update_kernel("quorin_linux"), 0);
  EXPECT_EQ(read_file(list_path()), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(server_.requests(), gets({kTesselList, kQuorinList}));
}

// What check and download need to know about the host

TEST_F(UpdateKernel, WithoutTheServersSettingThereIsNothingToDo) {
  write_config({{"update_host", server_address()}});
  expect_nothing_is_done();
}

TEST_F(UpdateKernel, WithAnEmptyServerAddressThereIsNothingToDo) {
  write_config({{"kernel_update_host", ""}});
  expect_nothing_is_done();
}

TEST_F(UpdateKernel, WithoutAConfigurationThereIsNothingToDo) {
  write_file(agent("config.xml"), "<norvak>");
  expect_nothing_is_done();
}

TEST_F(UpdateKernel, WithoutUnameThereIsNothingToDo) {
  const FakeUname host = FakeUname::failing();
  expect_nothing_is_done();
}

TEST_F(UpdateKernel, WithAnEmptyReleaseThereIsNothingToDo) {
  const FakeUname host(kMachine, "");
  expect_nothing_is_done();
}

TEST_F(UpdateKernel, WithAnEmptyVersionThereIsNothingToDo) {
  write_file(agent("suse"), "");
  const FakeUname host(kMachine, "-default");
  expect_nothing_is_done();
}

TEST_F(UpdateKernel, AnUnknownMachineNameDoesNotPreventTheCheck) {
  const FakeUname host("", kRelease);
  server_.reply(kTesselList, kMd5);
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
  EXPECT_EQ(server_.requests(), gets({kTesselList}));
}

// The record of the kernel version

TEST_F(UpdateKernel, TheRecordIsReplacedByANewFile) {
  write_file(record(), "a longer text than a version\n");
  ASSERT_EQ(::link(record().c_str(), agent("old_record").c_str()), 0);
  server_.reply(kTesselList, kMd5);
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
  EXPECT_EQ(read_file(record()), "2.6.32-431");
  EXPECT_EQ(read_file(agent("old_record")), "a longer text than a version\n");
}

TEST_F(UpdateKernel, TheRecordGetsThePermissionsOfANewFile) {
  server_.reply(kTesselList, kMd5);
  for (const auto& [mask, mode] : {std::pair(0U, 0666U), std::pair(002U, 0664U)}) {
    const ScopedUmask umask(mask);
    EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
    EXPECT_EQ(mode_of(record()), mode);
  }
}

TEST_F(UpdateKernel, ARecordThatCannotBeDeletedIsOverwritten) {
  write_file(record(), "a longer text than a version\n");
  const FileMount mount(record(), record());
  ASSERT_TRUE(mount.mounted());
  server_.reply(kTesselList, kMd5);
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
  EXPECT_EQ(read_file(record()), "2.6.32-431");
}

TEST_F(UpdateKernel, TheCheckContinuesWithoutTheRecordsDirectory) {
  ASSERT_EQ(::rmdir(agent("runlog").c_str()), 0);
  write_file(tessel(), kModule);
  server_.reply(kTesselList, kMd5);
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 1);
  EXPECT_FALSE(exists(agent("runlog")));
}

TEST_F(UpdateKernel, TheCheckContinuesIfTheRecordCannotBeReplaced) {
  make_full_directory(record());
  write_file(tessel(), kModule);
  server_.reply(kTesselList, kMd5);
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 1);
  EXPECT_TRUE(exists(record() + "/occupant"));
}

TEST_F(UpdateKernel, TheDownloadLeavesTheRecordAlone) {
  write_file(record(), "old record");
  write_file(list_path(), kMd5);
  server_.reply(kTesselFile, kModule);
  EXPECT_EQ(updater_.download_kernel("tessel_linux"), 0);
  EXPECT_EQ(read_file(record()), "old record");
}

/// An install directory with a path of a given length.
class UpdateKernelLongPath : public UpdateKernel {
 protected:
  /// Runs a check. @return the names in the directory of the record
  Lines record_names(std::size_t install_path_length) {
    std::string install = agent("");
    install.append(install_path_length - install.size(), 'd');
    write_config({{"kernel_update_host", server_address()}});
    write_file(install + "/runlog/other", "");
    EXPECT_EQ(::rename(agent("config.xml").c_str(), (install + "/config.xml").c_str()), 0);
    test_support::write_install_path(install + "\n");
    server_.reply(kTesselList, kMd5);
    CUpdateKernelImpl updater;
    (void)updater.init();
    EXPECT_EQ(updater.check_update_kernel("tessel_linux"), 0);
    return names_in(install + "/runlog");
  }
};

// "//runlog/kernel_version" are 23 characters.
TEST_F(UpdateKernelLongPath, OfTheRecordMayHave127Characters) {
  EXPECT_EQ(record_names(127 - 23), Lines({"kernel_version", "other"}));
}

TEST_F(UpdateKernelLongPath, OfTheRecordIsTruncatedAfter127Characters) {
  EXPECT_EQ(record_names(128 - 23), Lines({"kernel_versio", "other"}));
}

TEST_F(UpdateKernelLongPath, OfTheRecordMayLoseTheWholeName) {
  EXPECT_EQ(record_names(127), Lines({"other"}));
}

// The download

TEST_F(UpdateKernel, ADownloadReplacesTheInstalledModule) {
  write_file(tessel(), kOldModule);
  server_.reply(kTesselList, kMd5 + "\n");
  server_.reply(kTesselFile, kModule);
  ASSERT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
  EXPECT_EQ(updater_.download_kernel("tessel_linux"), 0);
  EXPECT_EQ(read_file(tessel()), kModule);
  EXPECT_EQ(server_.requests(), gets({kTesselList, kTesselFile}));
  EXPECT_EQ(log_messages(), Lines({kTesselVerified}));
  EXPECT_EQ(names_in(agent("update_norvak_kernel")), Lines({"md5"}));
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 1);
}

TEST_F(UpdateKernel, TheSuccessIsLoggedBeforeTheModuleIsMoved) {
  write_file(list_path(), kMd5);
  server_.reply(kTesselFile, kModule);
  const DirectoryWatch watch({install_path(), agent("runlog")});
  EXPECT_EQ(updater_.download_kernel("tessel_linux"), 0);
  EXPECT_EQ(log_messages(), Lines({kTesselVerified}));
  EXPECT_EQ(watch.events({"update.log", "tessel_linux.ko"}),
            Lines({"create update.log", "create tessel_linux.ko"}));
}

TEST_F(UpdateKernel, AModuleThatIsNotInstalledYetIsInstalledWithDefaultPermissions) {
  const ScopedUmask umask(027);
  write_file(list_path(), kMd5);
  server_.reply(kTesselFile, kModule);
  EXPECT_EQ(updater_.download_kernel("tessel_linux"), 0);
  EXPECT_EQ(read_file(tessel()), kModule);
  EXPECT_EQ(mode_of(tessel()), 0640U);
}

TEST_F(UpdateKernel, AListWithACarriageReturnNeverMatchesTheCheckButVerifies) {
  server_.reply(kTesselList, kMd5 + "\r\n");
  server_.reply(kTesselFile, kModule);
  for (int run = 0; run < 2; ++run) {
    EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
    EXPECT_EQ(updater_.download_kernel("tessel_linux"), 0);
    EXPECT_EQ(read_file(tessel()), kModule);
  }
  EXPECT_EQ(log_messages(), Lines({kTesselVerified, kTesselVerified}));
}

TEST_F(UpdateKernel, AModuleThatDoesNotMatchIsNotInstalled) {
  write_file(tessel(), kOldModule);
  write_file(list_path(), kMd5 + "\n");
  server_.reply(kTesselFile, "another module\n");
  EXPECT_EQ(updater_.download_kernel("tessel_linux"), -1);
  EXPECT_EQ(log_messages(), Lines({kTesselRefused}));
  EXPECT_EQ(read_file(tessel()), kOldModule);
  EXPECT_EQ(read_file(download_path()), "another module\n");
}

TEST_F(UpdateKernel, AnErrorPageIsNotInstalled) {
  write_file(tessel(), kOldModule);
  write_file(list_path(), kMd5 + "\n");
  EXPECT_EQ(updater_.download_kernel("tessel_linux"), -1);
  EXPECT_EQ(log_messages(), Lines({kTesselRefused}));
  EXPECT_EQ(read_file(tessel()), kOldModule);
  EXPECT_EQ(read_file(download_path()), "no such file\n");
}

TEST_F(UpdateKernel, AnEmptyModuleIsNotInstalled) {
  write_file(tessel(), kOldModule);
  write_file(list_path(), kMd5 + "\n");
  write_file(download_path(), kModule);  // left by an earlier run
  reply_empty(kTesselFile);
  EXPECT_EQ(updater_.download_kernel("tessel_linux"), -1);
  EXPECT_EQ(log_messages(), Lines({kTesselRefused}));
  EXPECT_EQ(read_file(tessel()), kOldModule);
}

TEST_F(UpdateKernel, WithoutAListNothingIsInstalled) {
  server_.reply(kTesselFile, kModule);
  EXPECT_EQ(updater_.download_kernel("tessel_linux"), -1);
  EXPECT_EQ(log_messages(), Lines({kTesselRefused}));
  EXPECT_EQ(read_file(download_path()), kModule);
  EXPECT_FALSE(exists(tessel()));
}

TEST_F(UpdateKernel, AModuleThatCannotBeDownloadedIsNotInstalled) {
  write_file(tessel(), kOldModule);
  write_file(list_path(), kMd5 + "\n");
  reply_cut_short(kTesselFile);
  EXPECT_EQ(updater_.download_kernel("tessel_linux"), -1);
  EXPECT_EQ(log_messages(), Lines({kCutShort, "[KERNEL] download tessel_linux kernel failed"}));
  EXPECT_EQ(read_file(tessel()), kOldModule);
  EXPECT_EQ(read_file(download_path()), "cut short");
}

TEST_F(UpdateKernel, AFailedInstallationGoesUnnoticed) {
  make_full_directory(tessel());
  write_file(list_path(), kMd5 + "\n");
  server_.reply(kTesselFile, kModule);
  EXPECT_EQ(updater_.download_kernel("tessel_linux"), 0);
  EXPECT_EQ(log_messages(), Lines({kTesselVerified}));
  EXPECT_TRUE(exists(tessel() + "/occupant"));
  EXPECT_EQ(read_file(download_path()), kModule);
}

TEST_F(UpdateKernel, ReleaseKeepsInstalledModulesAndTheRecord) {
  server_.reply(kTesselList, kMd5);
  server_.reply(kTesselFile, kModule);
  ASSERT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
  ASSERT_EQ(updater_.download_kernel("tessel_linux"), 0);
  updater_.release();
  EXPECT_EQ(read_file(tessel()), kModule);
  EXPECT_EQ(read_file(record()), "2.6.32-431");
  EXPECT_FALSE(exists(agent("update_norvak_kernel")));
}

// The clean-up

struct ClearCase {
  const char* name;
  bool tessel;
  bool quorin;
  bool kept;
};

class UpdateKernelClear : public UpdateKernel, public WithParamInterface<ClearCase> {};

TEST_P(UpdateKernelClear, LeavesBothEngineModulesOrNone) {
  const ClearCase& before = GetParam();
  if (before.tessel) write_file(tessel(), kModule);
  if (before.quorin) write_file(quorin(), kModule);
  write_file(agent("norvak_ipfilter.ko"), kModule);
  updater_.clear_tarn_kernel();
  EXPECT_EQ(exists(tessel()), before.kept);
  EXPECT_EQ(exists(quorin()), before.kept);
  EXPECT_EQ(read_file(agent("norvak_ipfilter.ko")), kModule);
  EXPECT_EQ(log_messages(), Lines());
}

INSTANTIATE_TEST_SUITE_P(Modules, UpdateKernelClear,
                         Values(ClearCase{"Both", true, true, true},
                                ClearCase{"OnlyTessel", true, false, false},
                                ClearCase{"OnlyQuorin", false, true, false},
                                ClearCase{"None", false, false, false}),
                         case_name);

TEST_F(UpdateKernel, ADanglingLinkDoesNotCountAsAModuleAndIsRemoved) {
  ASSERT_EQ(::symlink("nowhere", tessel().c_str()), 0);
  write_file(quorin(), kModule);
  updater_.clear_tarn_kernel();
  EXPECT_EQ(names_in(install_path()), Lines({"config.xml", "runlog", "update_norvak_kernel"}));
}

TEST_F(UpdateKernel, AfterAFailedDownloadOfTesselASingleQuorinIsRemoved) {
  write_file(quorin(), kOldModule);
  server_.reply(kTesselList, kMd5);
  ASSERT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
  ASSERT_EQ(updater_.download_kernel("tessel_linux"), -1);
  updater_.clear_tarn_kernel();
  EXPECT_FALSE(exists(tessel()));
  EXPECT_FALSE(exists(quorin()));
}

TEST_F(UpdateKernel, AfterAFailedDownloadOfQuorinTheOldPairStays) {
  write_file(tessel(), kOldModule);
  write_file(quorin(), kOldModule);
  server_.reply(kQuorinList, kMd5);
  reply_cut_short(kQuorinFile);
  ASSERT_EQ(updater_.check_update_kernel("quorin_linux"), 0);
  ASSERT_EQ(updater_.download_kernel("quorin_linux"), -1);
  updater_.clear_tarn_kernel();
  EXPECT_EQ(read_file(tessel()), kOldModule);
  EXPECT_EQ(read_file(quorin()), kOldModule);
}

}  // namespace
