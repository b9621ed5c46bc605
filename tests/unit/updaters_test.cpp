// What the four updaters have in common: init() and release().
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "test_support.h"
#include "update_kernel.h"
#include "update_nginx.h"
#include "update_rule.h"
#include "update_soft.h"
#include "updater_support.h"

using test_support::AgentTest;
using test_support::exists;
using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::ScopedUmask;
using test_support::write_file;
using Lines = std::vector<std::string>;

namespace {

template <typename Updater>
const char* kWorkDir = nullptr;
template <>
const char* kWorkDir<CUpdateSoftImpl> = "update_norvak_soft";
template <>
const char* kWorkDir<CUpdateKernelImpl> = "update_norvak_kernel";
template <>
const char* kWorkDir<CUpdateNginxImpl> = "update_norvak_nginx";
template <>
const char* kWorkDir<CUpdateRuleImpl> = "update_norvak_rule";

template <typename Updater>
class Updaters : public AgentTest {
 protected:
  [[nodiscard]] std::string work_dir() const { return agent(kWorkDir<Updater>); }

  Updater updater_;
};

struct UpdaterNames {
  template <typename Updater>
  static std::string GetName(int) {
    return kWorkDir<Updater> + sizeof "update_norvak";
  }
};

using AllUpdaters =
    testing::Types<CUpdateSoftImpl, CUpdateKernelImpl, CUpdateNginxImpl, CUpdateRuleImpl>;
TYPED_TEST_SUITE(Updaters, AllUpdaters, UpdaterNames);

TYPED_TEST(Updaters, InitCreatesTheWorkDirectoryWithoutASearchBit) {
  const ScopedUmask umask(0);
  EXPECT_EQ(this->updater_.init(), 0);
  EXPECT_EQ(mode_of(this->work_dir()), 0644U);
  EXPECT_EQ(names_in(this->install_path()), Lines({"runlog", kWorkDir<TypeParam>}));
}

TYPED_TEST(Updaters, InitLeavesAnExistingWorkDirectoryAsItIs) {
  write_file(this->work_dir() + "/leftover", "leftover");
  ASSERT_EQ(::chmod(this->work_dir().c_str(), 0710), 0);
  EXPECT_EQ(this->updater_.init(), 0);
  EXPECT_EQ(mode_of(this->work_dir()), 0710U);
  EXPECT_EQ(read_file(this->work_dir() + "/leftover"), "leftover");
}

TYPED_TEST(Updaters, InitIgnoresThatTheWorkDirectoryCannotBeCreated) {
  write_file(this->work_dir(), "a file");
  EXPECT_EQ(this->updater_.init(), 0);
  EXPECT_EQ(read_file(this->work_dir()), "a file");
}

TYPED_TEST(Updaters, InitReadsTheInstallDirectoryAgain) {
  (void)this->updater_.init();
  test_support::write_install_path(this->agent("runlog") + "\n");
  (void)this->updater_.init();
  EXPECT_EQ(names_in(this->agent("runlog")), Lines({kWorkDir<TypeParam>}));
}

TYPED_TEST(Updaters, ReleaseRemovesTheWorkDirectoryRecursively) {
  (void)this->updater_.init();
  write_file(this->work_dir() + "/file", "file");
  write_file(this->work_dir() + "/deep/deeper/file", "file");
  write_file(this->agent("beside"), "beside");
  this->updater_.release();
  EXPECT_EQ(names_in(this->install_path()), Lines({"beside", "runlog"}));
}

TYPED_TEST(Updaters, ReleaseRemovesAFileWithTheNameOfTheWorkDirectory) {
  write_file(this->work_dir(), "a file");
  (void)this->updater_.init();
  this->updater_.release();
  EXPECT_FALSE(exists(this->work_dir()));
}

TYPED_TEST(Updaters, ReleaseWithoutAWorkDirectoryIsHarmless) {
  (void)this->updater_.init();
  ASSERT_GT(std::filesystem::remove_all(this->work_dir()), 0U);
  this->updater_.release();
  EXPECT_EQ(names_in(this->install_path()), Lines({"runlog"}));
  EXPECT_EQ(this->log_messages(), Lines());
}

TYPED_TEST(Updaters, TheDestructorLeavesTheWorkDirectory) {
  {
    TypeParam updater;
    (void)updater.init();
  }
  EXPECT_TRUE(exists(this->work_dir()));
}

}  // namespace
