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

// The distribution

struct OsTypeCase {
  const char* name;
  std::vector<std::string> markers;
  const char* os_type;
};

class UpdateKernelOsType : public UpdateKernel, public WithParamInterface<OsTypeCase> {};

TEST_P(UpdateKernelOsType, IsDeterminedByMarkerFiles) {
  for (const std::string& marker : GetParam().markers) write_file(agent(marker), "suse centos\n");
  EXPECT_EQ(updater_.get_os_type(), GetParam().os_type);
}

INSTANTIATE_TEST_SUITE_P(
    Markers, UpdateKernelOsType,
    Values(OsTypeCase{"NoMarker", {}, "centos"}, OsTypeCase{"Ubuntu", {"ubuntu"}, "ubuntu"},
           OsTypeCase{"Suse", {"suse"}, "suse"},
           OsTypeCase{"BothAreUbuntu", {"suse", "ubuntu"}, "ubuntu"},
           OsTypeCase{"CapitalsAreNoMarker", {"Ubuntu", "SUSE"}, "centos"},
           OsTypeCase{"ADirectoryIsAMarker", {"suse/file"}, "suse"},
           OsTypeCase{"OnlyInTheInstallDirectory", {"runlog/ubuntu", "template/suse"}, "centos"}),
    case_name<OsTypeCase>);

// The processor family

struct ArchCase {
  const char* name;
  const char* machine;
  const char* arch;
};

class UpdateKernelArch : public TestWithParam<ArchCase> {};

TEST_P(UpdateKernelArch, IsDeterminedByTheMachineName) {
  const FakeUname host(GetParam().machine, kRelease);
  EXPECT_EQ(CUpdateKernelImpl().get_local_os_arch(), GetParam().arch);
}

INSTANTIATE_TEST_SUITE_P(
    Machines, UpdateKernelArch,
    Values(ArchCase{"I386", "i386", "x86"}, ArchCase{"I686", "i686", "x86"},
           ArchCase{"I586", "i586", "x64"}, ArchCase{"I486", "i486", "x64"},
           ArchCase{"X86_64", "x86_64", "x64"}, ArchCase{"Aarch64", "aarch64", "x64"},
           ArchCase{"Capitals", "I686", "x64"}, ArchCase{"Longer", "i6860", "x64"},
           ArchCase{"Shorter", "i38", "x64"}, ArchCase{"BlankAfter", "i386 ", "x64"},
           ArchCase{"Empty", "", "x64"}),
    case_name<ArchCase>);

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

// The kernel

struct ReleaseCase {
  const char* name;
  const char* release;
  int os_code;
  const char* version;
  const char* flavour;
  const char* old_flavour = "";  ///< in the record before the call
};

class UpdateKernelRelease : public TestWithParam<ReleaseCase> {};

TEST_P(UpdateKernelRelease, GivesVersionAndFlavour) {
  const FakeUname host(kMachine, GetParam().release);
  KernelInfo info{"old version", GetParam().old_flavour};
  CUpdateKernelImpl().get_local_kernel_version(GetParam().os_code, info);
  EXPECT_EQ(info.version, GetParam().version);
  EXPECT_EQ(info.flavour, GetParam().flavour);
}

constexpr ReleaseCase kTypicalReleases[] = {
    {"CentosXen", "2.6.18-164.el5xen", kCentos, "2.6.18-164", "xen"},
    {"CentosPae", "2.6.18-164.11.1.el5PAE", kCentos, "2.6.18-164", "pae"},
    {"Centos", "2.6.32-431.el6.x86_64", kCentos, "2.6.32-431", ""},
    {"SuseDefault", "3.0.13-0.27-default", kSuse, "3.0.13-0.27", "default"},
    {"SuseDesktop", "2.6.34-12-desktop", kSuse, "2.6.34-12", "desktop"},
    {"SusePae", "2.6.32.12-0.7-pae", kSuse, "2.6.32.12-0.7", "pae"},
    {"SuseOtherFlavour", "3.0.101-63-xen", kSuse, "3.0.101-63-XEN", ""},
    {"UbuntuGenericPae", "3.2.0-23-generic-pae", kUbuntu, "3.2.0-23", "generic"},
    {"UbuntuServer", "2.6.32-21-server", kUbuntu, "2.6.32-21", "server"},
};

// On CentOS and Ubuntu the version ends before the fourth character that is not a digit.
constexpr ReleaseCase kVersionLengths[] = {
    {"Empty", "", kCentos, "", ""},
    {"EmptyOnUbuntu", "", kUbuntu, "", "generic"},
    {"NoNonDigit", "2618", kCentos, "2618", ""},
    {"TwoNonDigits", "3.10.0", kCentos, "3.10.0", ""},
    {"TwoNonDigitsOnUbuntu", "3.10.0", kUbuntu, "3.10.0", "generic"},
    {"ThreeNonDigits", "3.10.0-1160", kCentos, "3.10.0-1160", ""},
    {"FourNonDigits", "2.6.18-164.5", kCentos, "2.6.18-164", ""},
    {"FourNonDigitsOnUbuntu", "2.6.18-164.5", kUbuntu, "2.6.18-164", "generic"},
    {"FourthAtTheEnd", "3.10.0-1160.", kCentos, "3.10.0-1160", ""},
    {"FiveNonDigits", "2.6.18.1-164.5", kCentos, "2.6.18.1", ""},
    {"LettersCount", "4.18rc1-2", kUbuntu, "4.18RC1", "generic"},
    {"UnderscoresCount", "3_10_0_1160_2", kCentos, "3_10_0_1160", ""},
    {"NeighboursOfTheDigitsCount", "3/10:0/1160:2", kCentos, "3/10:0/1160", ""},
    {"PlusSignsCount", "3+10+0+1160+2", kCentos, "3+10+0+1160", ""},
    {"NonDigitsOnly", "----", kCentos, "---", ""},
    {"NonDigitsInARow", "2..6..18", kCentos, "2..6.", ""},
    {"BytesAbove127Count", "3\303\251.1\3772", kCentos, "3\303\251.1", ""},
    {"BytesAbove127StayAsTheyAre", "\351\271\37710", kCentos, "\351\271\37710", ""},
    {"CapitalsBeforeTheCut", "2.6el.18", kCentos, "2.6EL", ""},
};

// The first flavour that the release contains anywhere.
constexpr ReleaseCase kFlavourOrders[] = {
    {"XenBeforePae", "2.6.18-1.el5PAExen", kCentos, "2.6.18-1", "xen"},
    {"AnyLetterCase", "2.6.18-1.el5XeN", kCentos, "2.6.18-1", "xen"},
    {"PaeInAnyLetterCase", "2.6.18-1.el5pAe", kCentos, "2.6.18-1", "pae"},
    {"CentosKnowsNoDefault", "2.6.18-1-default", kCentos, "2.6.18-1", ""},
    {"CentosClearsTheFlavour", "2.6.18-1.el5", kCentos, "2.6.18-1", "", "xen"},
    {"CentosReplacesTheFlavour", "2.6.18-1.el5PAE", kCentos, "2.6.18-1", "pae", "xen"},
    {"DefaultBeforeDesktop", "3.0-1-desktop-default", kSuse, "3.0-1-DESKTOP", "default"},
    {"DefaultBeforePae", "3.0-1-pae-default", kSuse, "3.0-1-PAE", "default"},
    {"DesktopBeforePae", "3.0-1-pae-desktop", kSuse, "3.0-1-PAE", "desktop"},
    {"SuseKnowsNoServer", "3.0-1-server", kSuse, "3.0-1-SERVER", ""},
    {"ServerBeforeGeneric", "2.6.32-21-generic-server", kUbuntu, "2.6.32-21", "server"},
    {"ServerAnywhere", "2.6.32-21-myservers", kUbuntu, "2.6.32-21", "server"},
    {"GenericWithoutTheWord", "3.2.0-23-virtual", kUbuntu, "3.2.0-23", "generic"},
    {"UbuntuKnowsNoXen", "2.6.24-19-xen", kUbuntu, "2.6.24-19", "generic"},
    {"UbuntuReplacesTheFlavour", "3.2.0-23-virtual", kUbuntu, "3.2.0-23", "generic", "server"},
    {"Code0IsAsUbuntu", "2.6.32-21-server", 0, "2.6.32-21", "server"},
    {"Code4IsAsUbuntu", "2.6.32-21-default", 4, "2.6.32-21", "generic"},
    {"NegativeCodeIsAsUbuntu", "2.6.32-21-xen", -1, "2.6.32-21", "generic"},
};

// On SUSE the version ends before the flavour.
constexpr ReleaseCase kSuseReleases[] = {
    {"Empty", "", kSuse, "", ""},
    {"NoFlavour", "3.0.101-63", kSuse, "3.0.101-63", ""},
    {"ManyNonDigits", "2.6.16.60-0.54.5-default", kSuse, "2.6.16.60-0.54.5", "default"},
    {"TextAfterTheFlavour", "3.0-1-default-debug", kSuse, "3.0-1", "default"},
    {"FirstOccurrence", "3-default-1-default", kSuse, "3", "default"},
    {"FlavourAtTheStart", "-default-3.0", kSuse, "", "default"},
    {"WithoutADashAllIsKept", "3.0.13-0.27default", kSuse, "3.0.13-0.27DEFAULT", "default"},
    {"DashElsewhereAllIsKept", "2.6.16.60-0.85.1-xenpae", kSuse, "2.6.16.60-0.85.1-XENPAE", "pae"},
    {"FlavourStaysAsItWas", "3.0.101-63-xen", kSuse, "3.0.101-63", "xen", "xen"},
    {"OldFlavourMissingAllIsKept", "3.0.101-63-xen", kSuse, "3.0.101-63-XEN", "trace", "trace"},
    {"FlavourIsReplaced", "3.0.101-63-pae", kSuse, "3.0.101-63", "pae", "xen"},
    {"AsLongAsCanBe", "1.2.3.4.5.6.7.8.9.10.11.12.13.14.15.16.17.18.19.20.21.22-pre.abc", kSuse,
     "1.2.3.4.5.6.7.8.9.10.11.12.13.14.15.16.17.18.19.20.21.22-PRE.ABC", ""},
};

INSTANTIATE_TEST_SUITE_P(Typical, UpdateKernelRelease, ValuesIn(kTypicalReleases),
                         case_name<ReleaseCase>);
INSTANTIATE_TEST_SUITE_P(Length, UpdateKernelRelease, ValuesIn(kVersionLengths),
                         case_name<ReleaseCase>);
INSTANTIATE_TEST_SUITE_P(Flavour, UpdateKernelRelease, ValuesIn(kFlavourOrders),
                         case_name<ReleaseCase>);
INSTANTIATE_TEST_SUITE_P(Suse, UpdateKernelRelease, ValuesIn(kSuseReleases),
                         case_name<ReleaseCase>);

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
    {"EmptyFlavourLeavesNoDash", 0, "http://host", "centos", "2.6.18-164", "",
     "http://host/kernels/centos/x64/2.6.18-164/tessel_linux/md5"},
    {"PathPrefix", 0, "http://host:8080/norvak", "ubuntu", "3.2.0-23", "generic",
     "http://host:8080/norvak/kernels/ubuntu-generic/x64/3.2.0-23/tessel_linux/md5"},
    {"ClosingSlashIsDoubled", 0, "http://host/", "centos", "3.10.0", "",
     "http://host//kernels/centos/x64/3.10.0/tessel_linux/md5"},
    {"ClosingSlashIsDoubledForTheModule", 1, "http://host/", "centos", "3.10.0", "",
     "http://host//kernels/centos/x64/3.10.0/tessel_linux/tessel_linux.ko"},
};

INSTANTIATE_TEST_SUITE_P(Urls, UpdateKernelUrl, ValuesIn(kUrls), case_name<UrlCase>);

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

struct VerificationCase {
  const char* name;
  std::string list;
  bool verified;
};

class UpdateKernelVerification : public UpdateKernel,
                                 public WithParamInterface<VerificationCase> {};

TEST_P(UpdateKernelVerification, ComparesTheFirstLineWithoutBlanksAroundIt) {
  write_file(list_path(), GetParam().list);
  write_file(download_path(), kModule);
  EXPECT_EQ(updater_.check_download_kernel_md5(), GetParam().verified);
  EXPECT_EQ(read_file(download_path()), kModule);
  EXPECT_EQ(log_messages(), Lines());
}

INSTANTIATE_TEST_SUITE_P(
    Lists, UpdateKernelVerification,
    Values(VerificationCase{"LineFeed", kMd5 + "\n", true},
           VerificationCase{"NoLineFeed", kMd5, true},
           VerificationCase{"CarriageReturn", kMd5 + "\r\n", true},
           VerificationCase{"BlanksAndTabs", " \t" + kMd5 + "\t \n", true},
           VerificationCase{"LaterLinesAreIgnored", kMd5 + "\nanything\n", true},
           VerificationCase{"Capitals", "B1946AC92492D2347C6235B4D2611184\n", false},
           VerificationCase{"OtherDigest", "d41d8cd98f00b204e9800998ecf8427e\n", false},
           VerificationCase{"DigestTooShort", kMd5.substr(0, 31) + "\n", false},
           VerificationCase{"TextAfterTheDigest", kMd5 + "  tessel_linux.ko\n", false},
           VerificationCase{"TrimmedFormFeed", kMd5 + "\f\n", false},
           VerificationCase{"DigestInTheSecondLine", "\n" + kMd5 + "\n", false},
           VerificationCase{"Empty", "", false},
           VerificationCase{"TextAfter127Characters", kMd5 + std::string(95, ' ') + "x", true},
           VerificationCase{"TextAsThe127thCharacter", kMd5 + std::string(94, ' ') + "x", false},
           VerificationCase{"DigestCutAfter127Characters", std::string(96, ' ') + kMd5, false}),
    case_name<VerificationCase>);

TEST_F(UpdateKernel, WithoutAListNothingIsVerified) {
  write_file(download_path(), kModule);
  EXPECT_FALSE(updater_.check_download_kernel_md5());
  EXPECT_EQ(read_file(download_path()), kModule);
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateKernel, AMissingDownloadIsNotVerified) {
  write_file(list_path(), kMd5);
  EXPECT_FALSE(updater_.check_download_kernel_md5());
  EXPECT_EQ(log_messages(), Lines());
}

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

struct ListCase {
  const char* name;
  std::string list;
  int installed;  ///< result for a host with the module, whose digest is kMd5
  int missing;    ///< result for a host without it
};

class UpdateKernelList : public UpdateKernel, public WithParamInterface<ListCase> {
 protected:
  void check(int result) {
    EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), result);
    EXPECT_EQ(log_messages(), result == -1 ? Lines({kAbnormal}) : Lines());
    EXPECT_EQ(read_file(list_path()), GetParam().list);
    EXPECT_EQ(read_file(record()), "2.6.32-431");
  }
};

TEST_P(UpdateKernelList, IsComparedWithTheInstalledModule) {
  write_file(tessel(), kModule);
  server_.reply(kTesselList, GetParam().list);
  check(GetParam().installed);
  EXPECT_EQ(read_file(tessel()), kModule);
}

TEST_P(UpdateKernelList, OfAModuleThatIsNotInstalledNeedsOneLine) {
  server_.reply(kTesselList, GetParam().list);
  check(GetParam().missing);
  EXPECT_FALSE(exists(tessel()));
}

INSTANTIATE_TEST_SUITE_P(
    Lists, UpdateKernelList,
    Values(ListCase{"LineFeed", kMd5 + "\n", 1, 0}, ListCase{"NoLineFeed", kMd5, 1, 0},
           ListCase{"OtherDigest", "d41d8cd98f00b204e9800998ecf8427e\n", 0, 0},
           ListCase{"Capitals", "B1946AC92492D2347C6235B4D2611184\n", 0, 0},
           ListCase{"CarriageReturn", kMd5 + "\r\n", 0, 0},
           ListCase{"BlankBefore", " " + kMd5 + "\n", 0, 0},
           ListCase{"BlankAfter", kMd5 + " \n", 0, 0}, ListCase{"NoDigest", "no digest", 0, 0},
           ListCase{"DigestOfAFileThatCannotBeRead", "-1\n", 0, 0},
           ListCase{"OneLineFeed", "\n", 0, 0},
           ListCase{"TwoLines", kMd5 + "\n" + kMd5 + "\n", -1, -1},
           ListCase{"TwoLinesWithoutTheLastLineFeed", kMd5 + "\nx", -1, -1},
           ListCase{"TrailingEmptyLine", kMd5 + "\n\n", -1, -1},
           ListCase{"LeadingEmptyLine", "\n" + kMd5 + "\n", -1, -1},
           ListCase{"OnePieceOf1022Characters", std::string(1022, 'x') + "\n", 0, 0},
           ListCase{"OnePieceOf1023Characters", std::string(1023, 'x'), 0, 0},
           ListCase{"LineFeedAsASecondPiece", std::string(1023, 'x') + "\n", -1, -1},
           ListCase{"TwoPiecesOfOneLine", std::string(1024, 'x'), -1, -1}),
    case_name<ListCase>);

/// An empty reply leaves no file. To get an empty list, a directory has its name: it cannot be
/// deleted, but opened.
TEST_F(UpdateKernel, AListWithoutALineMeansADownload) {
  write_file(tessel(), kModule);
  make_full_directory(list_path());
  reply_empty(kTesselList);
  EXPECT_EQ(updater_.check_update_kernel("tessel_linux"), 0);
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
                         case_name<ClearCase>);

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
