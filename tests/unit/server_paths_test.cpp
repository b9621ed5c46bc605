#include "server_paths.h"

#include <gtest/gtest.h>

namespace {

TEST(ServerPaths, TheAgentPackageLiesInTheDirectoryOfItsProcessorFamily) {
  EXPECT_EQ(server_paths::agent_package(server_paths::kX64), "/norvak/x64/nvupdate.tar");
  EXPECT_EQ(server_paths::agent_package(server_paths::kX86), "/norvak/x86/nvupdate.tar");
}

TEST(ServerPaths, EachModuleBuildHasADirectoryOfItsOwn) {
  const std::string directory =
      server_paths::module_directory("centos-xen", "x64", "2.6.18-164", "tessel_linux");
  EXPECT_EQ(directory, "/kernels/centos-xen/x64/2.6.18-164/tessel_linux");
  EXPECT_EQ(server_paths::module_digest_list(directory),
            "/kernels/centos-xen/x64/2.6.18-164/tessel_linux/md5");
  EXPECT_EQ(server_paths::module_file(directory, "tessel_linux"),
            "/kernels/centos-xen/x64/2.6.18-164/tessel_linux/tessel_linux.ko");
}

TEST(ServerPaths, AnEmptyVersionDirectoryLeavesAnEmptySegment) {
  EXPECT_EQ(server_paths::nginx_directory("x64", "1.24.0"), "/nginx_new/x64/1.24.0");
  const std::string directory = server_paths::nginx_directory("x86", "");
  EXPECT_EQ(server_paths::nginx_identification(directory), "/nginx_new/x86//md5");
  EXPECT_EQ(server_paths::nginx_program(directory), "/nginx_new/x86//nginx");
}

}  // namespace
