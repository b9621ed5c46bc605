#include "host_identity.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_support.h"

namespace {

using host_identity::kCentosCode;
using host_identity::kOtherCode;
using host_identity::kSuseCode;
using test_support::case_name;
using test_support::ScratchDirectory;
using test_support::write_file;

// The distribution

TEST(Distribution, IsDeterminedByMarkerFiles) {
  const struct {
    std::vector<std::string> markers;
    const char* distribution;
  } kCases[] = {
      {{}, "centos"},
      {{"ubuntu"}, "ubuntu"},
      {{"suse"}, "suse"},
      {{"suse", "ubuntu"}, "ubuntu"},
      {{"Ubuntu", "SUSE"}, "centos"},
      {{"suse/file"}, "suse"},
      {{"runlog/ubuntu", "template/suse"}, "centos"},
  };
  for (const auto& [markers, distribution] : kCases) {
    const ScratchDirectory dir;
    for (const std::string& marker : markers) write_file(dir / marker, "suse centos\n");
    EXPECT_EQ(host_identity::distribution(dir.path()), distribution)
        << testing::PrintToString(markers);
  }
}

TEST(Distribution, HasACode) {
  EXPECT_EQ(host_identity::os_code("centos"), 1);
  EXPECT_EQ(host_identity::os_code("suse"), 2);
  EXPECT_EQ(host_identity::os_code("ubuntu"), 3);
  EXPECT_EQ(host_identity::os_code("Centos"), 3) << "whole strings, case-sensitive";
}

// The processor family

TEST(ProcessorFamily, DiffersForPackagesAndModulesOfUnusualMachines) {
  const struct {
    const char* machine;
    const char* package_arch;
    const char* module_arch;
  } kCases[] = {
      {"x86_64", "x64", "x64"}, {"X86_64", "x64", "x64"},  {"x86_64h", "x86", "x64"},
      {"amd64", "x86", "x64"},  {"aarch64", "x86", "x64"}, {"i386", "x86", "x86"},
      {"i686", "x86", "x86"},   {"i586", "x86", "x64"},    {"i486", "x86", "x64"},
      {"I686", "x86", "x64"},   {"i6860", "x86", "x64"},   {"i38", "x86", "x64"},
      {"i386 ", "x86", "x64"},  {"", "x86", "x64"},
  };
  for (const auto& [machine, package_arch, module_arch] : kCases) {
    EXPECT_EQ(host_identity::package_arch(machine), package_arch) << machine;
    EXPECT_EQ(host_identity::module_arch(machine), module_arch) << machine;
  }
}

// The kernel

struct ReleaseCase {
  const char* name;
  const char* release;
  int os_code;
  const char* version;
  const char* flavour;
  const char* old_flavour = "";  ///< before the call
};

class KernelRelease : public testing::TestWithParam<ReleaseCase> {};

TEST_P(KernelRelease, GivesVersionAndFlavour) {
  host_identity::KernelInfo info{"old version", GetParam().old_flavour};
  host_identity::describe_kernel(GetParam().os_code, GetParam().release, info);
  EXPECT_EQ(info.version, GetParam().version);
  EXPECT_EQ(info.flavour, GetParam().flavour);
}

constexpr ReleaseCase kTypicalReleases[] = {
    {"CentosXen", "2.6.18-164.el5xen", kCentosCode, "2.6.18-164", "xen"},
    {"CentosPae", "2.6.18-164.11.1.el5PAE", kCentosCode, "2.6.18-164", "pae"},
    {"Centos", "2.6.32-431.el6.x86_64", kCentosCode, "2.6.32-431", ""},
    {"SuseDefault", "3.0.13-0.27-default", kSuseCode, "3.0.13-0.27", "default"},
    {"SuseDesktop", "2.6.34-12-desktop", kSuseCode, "2.6.34-12", "desktop"},
    {"SusePae", "2.6.32.12-0.7-pae", kSuseCode, "2.6.32.12-0.7", "pae"},
    {"SuseOtherFlavour", "3.0.101-63-xen", kSuseCode, "3.0.101-63-XEN", ""},
    {"UbuntuGenericPae", "3.2.0-23-generic-pae", kOtherCode, "3.2.0-23", "generic"},
    {"UbuntuServer", "2.6.32-21-server", kOtherCode, "2.6.32-21", "server"},
};

// Except on SUSE the version ends before the fourth character that is not a digit.
constexpr ReleaseCase kVersionLengths[] = {
    {"Empty", "", kCentosCode, "", ""},
    {"EmptyOnUbuntu", "", kOtherCode, "", "generic"},
    {"NoNonDigit", "2618", kCentosCode, "2618", ""},
    {"TwoNonDigits", "3.10.0", kCentosCode, "3.10.0", ""},
    {"TwoNonDigitsOnUbuntu", "3.10.0", kOtherCode, "3.10.0", "generic"},
    {"ThreeNonDigits", "3.10.0-1160", kCentosCode, "3.10.0-1160", ""},
    {"FourNonDigits", "2.6.18-164.5", kCentosCode, "2.6.18-164", ""},
    {"FourNonDigitsOnUbuntu", "2.6.18-164.5", kOtherCode, "2.6.18-164", "generic"},
    {"FourthAtTheEnd", "3.10.0-1160.", kCentosCode, "3.10.0-1160", ""},
    {"FiveNonDigits", "2.6.18.1-164.5", kCentosCode, "2.6.18.1", ""},
    {"LettersCount", "4.18rc1-2", kOtherCode, "4.18RC1", "generic"},
    {"UnderscoresCount", "3_10_0_1160_2", kCentosCode, "3_10_0_1160", ""},
    {"NeighboursOfTheDigitsCount", "3/10:0/1160:2", kCentosCode, "3/10:0/1160", ""},
    {"PlusSignsCount", "3+10+0+1160+2", kCentosCode, "3+10+0+1160", ""},
    {"NonDigitsOnly", "----", kCentosCode, "---", ""},
    {"NonDigitsInARow", "2..6..18", kCentosCode, "2..6.", ""},
    {"BytesAbove127Count", "3\303\251.1\3772", kCentosCode, "3\303\251.1", ""},
    {"BytesAbove127StayAsTheyAre", "\351\271\37710", kCentosCode, "\351\271\37710", ""},
    {"CapitalsBeforeTheCut", "2.6el.18", kCentosCode, "2.6EL", ""},
};

// The first flavour that the release contains anywhere.
constexpr ReleaseCase kFlavourOrders[] = {
    {"XenBeforePae", "2.6.18-1.el5PAExen", kCentosCode, "2.6.18-1", "xen"},
    {"AnyLetterCase", "2.6.18-1.el5XeN", kCentosCode, "2.6.18-1", "xen"},
    {"PaeInAnyLetterCase", "2.6.18-1.el5pAe", kCentosCode, "2.6.18-1", "pae"},
    {"CentosKnowsNoDefault", "2.6.18-1-default", kCentosCode, "2.6.18-1", ""},
    {"CentosClearsTheFlavour", "2.6.18-1.el5", kCentosCode, "2.6.18-1", "", "xen"},
    {"CentosReplacesTheFlavour", "2.6.18-1.el5PAE", kCentosCode, "2.6.18-1", "pae", "xen"},
    {"DefaultBeforeDesktop", "3.0-1-desktop-default", kSuseCode, "3.0-1-DESKTOP", "default"},
    {"DefaultBeforePae", "3.0-1-pae-default", kSuseCode, "3.0-1-PAE", "default"},
    {"DesktopBeforePae", "3.0-1-pae-desktop", kSuseCode, "3.0-1-PAE", "desktop"},
    {"SuseKnowsNoServer", "3.0-1-server", kSuseCode, "3.0-1-SERVER", ""},
    {"ServerBeforeGeneric", "2.6.32-21-generic-server", kOtherCode, "2.6.32-21", "server"},
    {"ServerAnywhere", "2.6.32-21-myservers", kOtherCode, "2.6.32-21", "server"},
    {"GenericWithoutTheWord", "3.2.0-23-virtual", kOtherCode, "3.2.0-23", "generic"},
    {"UbuntuKnowsNoXen", "2.6.24-19-xen", kOtherCode, "2.6.24-19", "generic"},
    {"UbuntuReplacesTheFlavour", "3.2.0-23-virtual", kOtherCode, "3.2.0-23", "generic", "server"},
    {"Code0IsAsUbuntu", "2.6.32-21-server", 0, "2.6.32-21", "server"},
    {"Code4IsAsUbuntu", "2.6.32-21-default", 4, "2.6.32-21", "generic"},
    {"NegativeCodeIsAsUbuntu", "2.6.32-21-xen", -1, "2.6.32-21", "generic"},
};

// On SUSE the version ends before the flavour.
constexpr ReleaseCase kSuseReleases[] = {
    {"Empty", "", kSuseCode, "", ""},
    {"NoFlavour", "3.0.101-63", kSuseCode, "3.0.101-63", ""},
    {"ManyNonDigits", "2.6.16.60-0.54.5-default", kSuseCode, "2.6.16.60-0.54.5", "default"},
    {"TextAfterTheFlavour", "3.0-1-default-debug", kSuseCode, "3.0-1", "default"},
    {"FirstOccurrence", "3-default-1-default", kSuseCode, "3", "default"},
    {"FlavourAtTheStart", "-default-3.0", kSuseCode, "", "default"},
    {"WithoutADashAllIsKept", "3.0.13-0.27default", kSuseCode, "3.0.13-0.27DEFAULT", "default"},
    {"DashElsewhereAllIsKept", "2.6.16.60-0.85.1-xenpae", kSuseCode, "2.6.16.60-0.85.1-XENPAE",
     "pae"},
    {"FlavourStaysAsItWas", "3.0.101-63-xen", kSuseCode, "3.0.101-63", "xen", "xen"},
    {"OldFlavourMissingAllIsKept", "3.0.101-63-xen", kSuseCode, "3.0.101-63-XEN", "trace", "trace"},
    {"FlavourIsReplaced", "3.0.101-63-pae", kSuseCode, "3.0.101-63", "pae", "xen"},
    {"AsLongAsCanBe", "1.2.3.4.5.6.7.8.9.10.11.12.13.14.15.16.17.18.19.20.21.22-pre.abc", kSuseCode,
     "1.2.3.4.5.6.7.8.9.10.11.12.13.14.15.16.17.18.19.20.21.22-PRE.ABC", ""},
};

INSTANTIATE_TEST_SUITE_P(Typical, KernelRelease, testing::ValuesIn(kTypicalReleases), case_name);
INSTANTIATE_TEST_SUITE_P(Length, KernelRelease, testing::ValuesIn(kVersionLengths), case_name);
INSTANTIATE_TEST_SUITE_P(Flavour, KernelRelease, testing::ValuesIn(kFlavourOrders), case_name);
INSTANTIATE_TEST_SUITE_P(Suse, KernelRelease, testing::ValuesIn(kSuseReleases), case_name);

TEST(KernelDistribution, HasTheFlavourAfterADash) {
  EXPECT_EQ(host_identity::kernel_distribution("centos", ""), "centos");
  EXPECT_EQ(host_identity::kernel_distribution("suse", "pae"), "suse-pae");
}

}  // namespace
