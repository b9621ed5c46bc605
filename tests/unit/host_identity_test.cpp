#include "host_identity.h"

#include <gtest/gtest.h>

#include "server_paths.h"
#include "test_support.h"

namespace {

using test_support::ScratchDirectory;
using test_support::write_file;

TEST(HostIdentity, MarkersAreLookedUpInOrder) {
  const ScratchDirectory dir;
  EXPECT_EQ(host_identity::distribution(dir.path()), "centos");
  write_file(host_identity::distribution_marker(dir.path(), host_identity::kSuse), "");
  EXPECT_EQ(host_identity::distribution(dir.path()), "suse");
  write_file(host_identity::distribution_marker(dir.path(), host_identity::kUbuntu), "");
  EXPECT_EQ(host_identity::distribution(dir.path()), "ubuntu");
}

TEST(HostIdentity, EveryDistributionHasACode) {
  EXPECT_EQ(host_identity::os_code("centos"), 1);
  EXPECT_EQ(host_identity::os_code("suse"), 2);
  EXPECT_EQ(host_identity::os_code("ubuntu"), 3);
  EXPECT_EQ(host_identity::os_code("Centos"), 3) << "whole strings, case-sensitive";
}

TEST(HostIdentity, OnlySuseKeepsTheFlavourThatTheCallerSet) {
  host_identity::KernelInfo info = {"", "kept"};
  host_identity::describe_kernel(host_identity::kSuseCode, "3.0.101-63-xen", info);
  EXPECT_EQ(info.flavour, "kept");
  host_identity::describe_kernel(host_identity::kCentosCode, "2.6.18-164.el5", info);
  EXPECT_EQ(info.flavour, "");
}

TEST(HostIdentity, TheFlavourFollowsADash) {
  EXPECT_EQ(host_identity::kernel_distribution("centos", ""), "centos");
  EXPECT_EQ(host_identity::kernel_distribution("suse", "pae"), "suse-pae");
}

TEST(HostIdentity, PackagesAndModulesDisagreeOnUnusualMachines) {
  const struct {
    const char* machine;
    const char* package_arch;
    const char* module_arch;
  } kCases[] = {
      {"x86_64", "x64", "x64"}, {"X86_64", "x64", "x64"},  {"i386", "x86", "x86"},
      {"i686", "x86", "x86"},   {"i586", "x86", "x64"},    {"I686", "x86", "x64"},
      {"", "x86", "x64"},       {"aarch64", "x86", "x64"},
  };
  for (const auto& [machine, package_arch, module_arch] : kCases) {
    EXPECT_EQ(host_identity::package_arch(machine), package_arch) << machine;
    EXPECT_EQ(host_identity::module_arch(machine), module_arch) << machine;
  }
}

}  // namespace
