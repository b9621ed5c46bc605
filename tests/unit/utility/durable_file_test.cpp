#include "utility/durable_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "test_support.h"
#include "utility/file.h"

namespace {

using test_support::exists;
using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::ScratchDirectory;
using test_support::SmallDisk;
using test_support::write_file;
using utility::replace_durably;

using Names = std::vector<std::string>;

constexpr int kNotSetUp = 100;  // exit statuses of child processes
constexpr int kCrashed = 101;

#ifdef SYS_fchown32  // 32-bit x86, where the plain call takes 16-bit numbers
constexpr long kChown = SYS_fchown32;
#else
constexpr long kChown = SYS_fchown;
#endif

#ifdef SYS_ftruncate64  // likewise, with 32-bit lengths
constexpr long kTruncate = SYS_ftruncate64;
#else
constexpr long kTruncate = SYS_ftruncate;
#endif

/// What happens instead of a system call.
struct Fault {
  const char* name;
  long call;
  std::uint32_t action;  // of seccomp
  int argument = 0;
  std::uint16_t comparison = BPF_JGE;  // with `value`, of the argument's lower 32 bits
  std::uint32_t value = 0;
};

constexpr std::uint32_t fail_with(int error) {
  return SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error);
}

constexpr Fault kNoUnnamedFiles = {
    "NoUnnamedFiles", SYS_openat, fail_with(EOPNOTSUPP), 2, BPF_JSET, O_TMPFILE & ~O_DIRECTORY};
constexpr Fault kNoNaming = {"NoNaming", SYS_linkat, fail_with(ENOENT)};

/// Brings @a fault into this process, for the rest of its life.
bool inject(const Fault& fault) {
  const auto call = static_cast<std::uint32_t>(fault.call);
  const auto argument =
      static_cast<std::uint32_t>(offsetof(seccomp_data, args) + 8 * std::size_t(fault.argument));
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument),
      BPF_JUMP(static_cast<std::uint16_t>(BPF_JMP | fault.comparison | BPF_K), fault.value, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, fault.action),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program = {sizeof filter / sizeof *filter, filter};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/// Runs @a body in a child process.
/// @return its result; kCrashed when it was ended by a signal
int in_child(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  int status = 0;
  if (::waitpid(child, &status, 0) != child) return kCrashed;
  return WIFEXITED(status) ? WEXITSTATUS(status) : kCrashed;
}

/// Runs @a body in a child process, and @a meanwhile here while the child stands at the first
/// system call that @a pause names with the action SECCOMP_RET_TRACE.
/// @return the result of @a body; kCrashed when the child did not get there or was ended by a
/// signal
int in_paused_child(const Fault& pause, const std::function<int()>& body,
                    const std::function<void()>& meanwhile) {
  const pid_t child = ::fork();
  if (child == 0) {
    const bool traced = ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0;
    ::_exit(traced && ::raise(SIGSTOP) == 0 && inject(pause) ? body() : kNotSetUp);
  }
  constexpr long kOptions = PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL;
  int status = 0;
  const auto wait = [&] { return ::waitpid(child, &status, 0) == child; };
  if (!wait() || !WIFSTOPPED(status)) return kCrashed;
  (void)::ptrace(PTRACE_SETOPTIONS, child, nullptr, kOptions);
  (void)::ptrace(PTRACE_CONT, child, nullptr, nullptr);
  if (!wait() || !WIFSTOPPED(status)) return kCrashed;
  meanwhile();
  (void)::ptrace(PTRACE_DETACH, child, nullptr, nullptr);
  return wait() && WIFEXITED(status) ? WEXITSTATUS(status) : kCrashed;
}

/// The result of replace_durably() in a child process with @a faults.
int replace_with_faults(const std::vector<Fault>& faults, const std::string& path,
                        const std::string& contents) {
  return in_child([&] {
    constexpr rlimit kNoCore = {0, 0};
    if (::setrlimit(RLIMIT_CORE, &kNoCore) != 0) return kNotSetUp;
    for (const Fault& fault : faults) {
      if (!inject(fault)) return kNotSetUp;
    }
    return replace_durably(path, contents) ? 1 : 0;
  });
}

ino_t inode_of(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_ino;
}

bool is_link(const std::string& path) {
  struct stat status = {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

/// A directory with one file, the old version.
class DurableFile : public testing::Test {
 protected:
  void SetUp() override { write_file(config_, "old"); }

  void expect_only(const std::string& contents) const {
    EXPECT_EQ(read_file(config_), contents);
    EXPECT_EQ(names_in(scratch_.path()), Names({"config.xml"}));
  }

  const ScratchDirectory scratch_;
  const std::string config_ = scratch_ / "config.xml";
};

TEST_F(DurableFile, ReplacesTheWholeFile) {
  for (const std::string& contents :
       {std::string("longer than the old version"), std::string("s"), std::string(),
        std::string("a\0b", 3), std::string(5'000'000, 'x')}) {
    EXPECT_TRUE(replace_durably(config_, contents));
    expect_only(contents);
  }
}

TEST_F(DurableFile, PutsANewFileInThePlaceOfTheOldOne) {
  const utility::Descriptor reader(::open(config_.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(replace_durably(config_, "new"));
  char old[4] = {};
  EXPECT_EQ(::read(reader.get(), old, sizeof old), 3);
  EXPECT_STREQ(old, "old");  // who has the old version open keeps it whole
}

TEST_F(DurableFile, KeepsTheModeIncludingSpecialBits) {
  for (const mode_t mode : {mode_t{0600}, mode_t{0644}, mode_t{0666}, mode_t{04755}}) {
    ASSERT_EQ(::chmod(config_.c_str(), mode), 0);
    EXPECT_TRUE(replace_durably(config_, "new"));
    EXPECT_EQ(mode_of(config_), mode);
  }
}

TEST_F(DurableFile, KeepsTheOwner) {
  constexpr uid_t kUser = 1234;
  constexpr gid_t kGroup = 5678;
  if (::chown(config_.c_str(), kUser, kGroup) != 0) GTEST_SKIP() << "only root gives files away";
  ASSERT_EQ(::chmod(config_.c_str(), 06755), 0);
  ASSERT_TRUE(replace_durably(config_, "new"));
  struct stat status = {};
  ASSERT_EQ(::stat(config_.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, kUser);
  EXPECT_EQ(status.st_gid, kGroup);
  EXPECT_EQ(status.st_mode & 07777U, 06755U);
}

TEST_F(DurableFile, CreatesAMissingFileAsAnyNewFile) {
  const mode_t old_mask = ::umask(027);
  EXPECT_TRUE(replace_durably(scratch_ / "other.xml", "new"));
  ::umask(old_mask);
  EXPECT_EQ(read_file(scratch_ / "other.xml"), "new");
  EXPECT_EQ(mode_of(scratch_ / "other.xml"), 0640U);
  EXPECT_EQ(names_in(scratch_.path()), Names({"config.xml", "other.xml"}));
}

TEST_F(DurableFile, TakesAPathWithoutADirectory) {
  EXPECT_EQ(in_child([&] {
              if (::chdir(scratch_.path().c_str()) != 0) return kNotSetUp;
              return replace_durably("config.xml", "new") ? 1 : 0;
            }),
            1);
  expect_only("new");
}

TEST_F(DurableFile, LeavesNoDescriptorOpen) {
  const std::size_t before = names_in("/proc/self/fd").size();
  ASSERT_TRUE(replace_durably(config_, "new"));
  ASSERT_FALSE(replace_durably(scratch_ / "missing/config.xml", "new"));
  EXPECT_EQ(names_in("/proc/self/fd").size(), before);
}

TEST_F(DurableFile, FailsWithoutADirectory) {
  EXPECT_FALSE(replace_durably(scratch_ / "missing/config.xml", "new"));
  EXPECT_FALSE(replace_durably(config_ + "/config.xml", "new"));
  EXPECT_FALSE(replace_durably("", "new"));
  expect_only("old");
}

TEST_F(DurableFile, RefusesWhatIsNotAFile) {
  ASSERT_EQ(::mkdir((scratch_ / "directory").c_str(), 0755), 0);
  ASSERT_EQ(::mkfifo((scratch_ / "fifo").c_str(), 0644), 0);
  EXPECT_FALSE(replace_durably(scratch_ / "directory", "new"));
  EXPECT_FALSE(replace_durably(scratch_ / "directory/", "new"));
  EXPECT_FALSE(replace_durably(scratch_ / "fifo", "new"));
  EXPECT_EQ(names_in(scratch_.path()), Names({"config.xml", "directory", "fifo"}));
}

TEST_F(DurableFile, RemovesWhatAKilledCallLeft) {
  write_file(config_ + ".new", "a part of");
  EXPECT_TRUE(replace_durably(config_, "new"));
  expect_only("new");
}

TEST_F(DurableFile, RemovesWhatAKilledCallLeftWithoutTheFallback) {
  const Fault no_named_files = {"", SYS_openat, fail_with(EACCES), 2, BPF_JSET, O_EXCL};
  write_file(config_ + ".new", "a part of");
  EXPECT_EQ(replace_with_faults({no_named_files}, config_, "new"), 1);
  expect_only("new");
}

TEST_F(DurableFile, RemovesALinkUnderTheNewNameWithoutFollowingIt) {
  write_file(scratch_ / "elsewhere/file", "kept");
  ASSERT_EQ(::symlink((scratch_ / "elsewhere/file").c_str(), (config_ + ".new").c_str()), 0);
  EXPECT_TRUE(replace_durably(config_, "new"));
  EXPECT_EQ(read_file(config_), "new");
  EXPECT_FALSE(is_link(config_));
  EXPECT_EQ(read_file(scratch_ / "elsewhere/file"), "kept");
  EXPECT_EQ(names_in(scratch_.path()), Names({"config.xml", "elsewhere"}));
}

TEST_F(DurableFile, FailsWhenTheNewNameIsADirectory) {
  ASSERT_EQ(::mkdir((config_ + ".new").c_str(), 0755), 0);
  EXPECT_FALSE(replace_durably(config_, "new"));
  EXPECT_EQ(read_file(config_), "old");
  EXPECT_EQ(names_in(scratch_.path()), Names({"config.xml", "config.xml.new"}));
}

// ---- Symbolic links ----

class DurableFileLink : public DurableFile {
 protected:
  void make_link(const std::string& target, const std::string& name) const {
    ASSERT_EQ(::symlink(target.c_str(), (scratch_ / name).c_str()), 0);
  }
};

TEST_F(DurableFileLink, ReplacesTheTargetAndKeepsTheLink) {
  ASSERT_EQ(::mkdir((scratch_ / "etc").c_str(), 0755), 0);
  make_link(config_, "absolute");
  make_link("config.xml", "relative");
  make_link("../relative", "etc/chain");
  make_link(".", "here");
  for (const char* name : {"absolute", "relative", "etc/chain", "here/etc/chain"}) {
    EXPECT_TRUE(replace_durably(scratch_ / name, name));
    EXPECT_EQ(read_file(config_), name);
    EXPECT_TRUE(is_link(scratch_ / name));
    EXPECT_FALSE(is_link(config_));
  }
  EXPECT_EQ(names_in(scratch_.path()),
            Names({"absolute", "config.xml", "etc", "here", "relative"}));
  EXPECT_EQ(names_in(scratch_ / "etc"), Names({"chain"}));
}

TEST_F(DurableFileLink, CreatesTheMissingTargetOfALink) {
  make_link("target", "link");
  EXPECT_TRUE(replace_durably(scratch_ / "link", "new"));
  EXPECT_TRUE(is_link(scratch_ / "link"));
  EXPECT_FALSE(is_link(scratch_ / "target"));
  EXPECT_EQ(read_file(scratch_ / "target"), "new");
}

TEST_F(DurableFileLink, FailsOnALinkThatLeadsNowhere) {
  make_link("loop", "loop");
  make_link("missing/config.xml", "dangling");
  EXPECT_FALSE(replace_durably(scratch_ / "loop", "new"));
  EXPECT_FALSE(replace_durably(scratch_ / "dangling", "new"));
  EXPECT_EQ(names_in(scratch_.path()), Names({"config.xml", "dangling", "loop"}));
}

// ---- Failing disks ----

TEST_F(DurableFile, KeepsTheOldVersionWhenTheFileSizeIsLimited) {
  EXPECT_EQ(in_child([&] {
              constexpr rlimit kLimit = {1000, 1000};
              if (std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR) return kNotSetUp;
              if (::setrlimit(RLIMIT_FSIZE, &kLimit) != 0) return kNotSetUp;
              return replace_durably(config_, std::string(1001, 'x')) ? 1 : 0;
            }),
            0);
  expect_only("old");
}

TEST_F(DurableFile, KeepsTheOldVersionOnAFullDisk) {
  constexpr std::size_t kDiskBytes = std::size_t{256} * 1024;
  ASSERT_EQ(::mkdir((scratch_ / "disk").c_str(), 0755), 0);
  const SmallDisk disk(scratch_ / "disk", kDiskBytes);
  if (!disk.mounted()) GTEST_SKIP() << "this host does not allow private mount namespaces";
  const std::string path = scratch_ / "disk/config.xml";
  const std::string old(100'000, 'o');
  write_file(path, old);

  EXPECT_FALSE(replace_durably(path, std::string(200'000, 'n')));
  EXPECT_TRUE(read_file(path) == old);
  EXPECT_EQ(replace_with_faults({kNoUnnamedFiles}, path, std::string(200'000, 'n')), 0);
  EXPECT_TRUE(read_file(path) == old);
  EXPECT_EQ(names_in(scratch_ / "disk"), Names({"config.xml"}));

  const std::string fitting(100'000, 'n');  // the space of the failed versions is free again
  EXPECT_TRUE(replace_durably(path, fitting));
  EXPECT_TRUE(read_file(path) == fitting);
  EXPECT_EQ(replace_with_faults({kNoNaming}, path, std::string(100'000, 'm')), 1);
}

TEST_F(DurableFile, FreesTheSpaceOfWhatAKilledCallLeftEvenWhenItFails) {
  constexpr std::size_t kDiskBytes = std::size_t{256} * 1024;
  ASSERT_EQ(::mkdir((scratch_ / "disk").c_str(), 0755), 0);
  const SmallDisk disk(scratch_ / "disk", kDiskBytes);
  if (!disk.mounted()) GTEST_SKIP() << "this host does not allow private mount namespaces";
  const std::string path = scratch_ / "disk/config.xml";
  write_file(path, "old");
  write_file(path + ".new", std::string(200'000, 's'));

  EXPECT_FALSE(replace_durably(path, std::string(100'000, 'n')));
  EXPECT_EQ(names_in(scratch_ / "disk"), Names({"config.xml"}));
  EXPECT_TRUE(replace_durably(path, std::string(100'000, 'n')));
}

TEST_F(DurableFile, FailsOnAReadOnlyDirectory) {
  if (!test_support::in_private_namespace()) GTEST_SKIP() << "mounts need a private namespace";
  const char* const directory = scratch_.path().c_str();
  ASSERT_EQ(::mount(directory, directory, nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(::mount(nullptr, directory, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_FALSE(replace_durably(config_, "new"));
  expect_only("old");
  ASSERT_EQ(::umount(directory), 0);
}

class DurableFileFault : public DurableFile, public testing::WithParamInterface<Fault> {};

TEST_P(DurableFileFault, LeavesTheOldVersionAlone) {
  for (const std::vector<Fault>& faults :
       {std::vector{GetParam()}, {GetParam(), kNoUnnamedFiles}, {GetParam(), kNoNaming}}) {
    EXPECT_EQ(replace_with_faults(faults, config_, "new"), 0);
    expect_only("old");
  }
}

INSTANTIATE_TEST_SUITE_P(EachStep, DurableFileFault,
                         testing::Values(Fault{"Chown", kChown, fail_with(EPERM)},
                                         Fault{"Chmod", SYS_fchmod, fail_with(EPERM)},
                                         Fault{"Write", SYS_write, fail_with(EIO)},
                                         Fault{"Flush", SYS_fsync, fail_with(EIO)},
                                         Fault{"Rename", SYS_renameat, fail_with(EIO)},
                                         Fault{"Open", SYS_openat, fail_with(EMFILE)}),
                         [](const auto& fault) { return fault.param.name; });

/// The flush of the directory fails, which replace_durably() opens first of all.
Fault unflushed_directory() {
  const int next_descriptor = ::dup(STDIN_FILENO);
  EXPECT_EQ(::close(next_descriptor), 0);
  const auto directory = static_cast<std::uint32_t>(next_descriptor);
  return {"UnflushedDirectory", SYS_fsync, fail_with(EIO), 0, BPF_JEQ, directory};
}

TEST_F(DurableFile, ReportsAnUnflushedDirectory) {
  EXPECT_EQ(replace_with_faults({unflushed_directory()}, config_, "new"), 0);
  expect_only("new");
}

// ---- File systems without unnamed files ----

class DurableFileFallback : public DurableFile, public testing::WithParamInterface<Fault> {};

TEST_P(DurableFileFallback, ReplacesTheFileAllTheSame) {
  ASSERT_EQ(::chmod(config_.c_str(), 0604), 0);
  write_file(config_ + ".new", "a part of");
  EXPECT_EQ(replace_with_faults({GetParam()}, config_, "new"), 1);
  expect_only("new");
  EXPECT_EQ(mode_of(config_), 0604U);
}

TEST_P(DurableFileFallback, CreatesAMissingFileAsAnyNewFile) {
  const mode_t old_mask = ::umask(022);
  EXPECT_EQ(replace_with_faults({GetParam()}, scratch_ / "other.xml", "new"), 1);
  ::umask(old_mask);
  EXPECT_EQ(read_file(scratch_ / "other.xml"), "new");
  EXPECT_EQ(mode_of(scratch_ / "other.xml"), 0644U);
}

INSTANTIATE_TEST_SUITE_P(EachCause, DurableFileFallback,
                         testing::Values(kNoUnnamedFiles, kNoNaming,
                                         Fault{"OldKernel", SYS_openat, fail_with(EISDIR), 2,
                                               BPF_JSET, O_TMPFILE & ~O_DIRECTORY}),
                         [](const auto& fault) { return fault.param.name; });

TEST_F(DurableFile, WorksWithoutProc) {
  if (!test_support::in_private_namespace()) GTEST_SKIP() << "mounts need a private namespace";
  ASSERT_EQ(::mount("norvak_test", "/proc", "tmpfs", 0, nullptr), 0);
  EXPECT_TRUE(replace_durably(config_, "new"));
  ASSERT_EQ(::umount("/proc"), 0);
  expect_only("new");
}

// ---- Kills ----

TEST_F(DurableFile, AKillBeforeTheNamingLeavesNothing) {
  for (const long call :
       {kChown, long{SYS_fchmod}, long{SYS_write}, long{SYS_fsync}, long{SYS_linkat}}) {
    const Fault kill = {"", call, SECCOMP_RET_KILL_PROCESS};
    EXPECT_EQ(replace_with_faults({kill}, config_, "new"), kCrashed);
    expect_only("old");
  }
}

TEST_F(DurableFile, AKillBeforeTheRenameLeavesOneNameThatTheNextCallRemoves) {
  const Fault kill = {"", SYS_renameat, SECCOMP_RET_KILL_PROCESS};
  for (int repetition = 0; repetition < 3; ++repetition) {
    EXPECT_EQ(replace_with_faults({kill}, config_, "new"), kCrashed);
    EXPECT_EQ(read_file(config_), "old");
    EXPECT_EQ(names_in(scratch_.path()), Names({"config.xml", "config.xml.new"}));
  }
  EXPECT_TRUE(replace_durably(config_, "newer"));
  expect_only("newer");
}

TEST_F(DurableFile, AKillOfTheFallbackLeavesOneNameThatTheNextCallRemoves) {
  const Fault kill = {"", SYS_write, SECCOMP_RET_KILL_PROCESS};
  EXPECT_EQ(replace_with_faults({kNoUnnamedFiles, kill}, config_, "new"), kCrashed);
  EXPECT_EQ(read_file(config_), "old");
  EXPECT_EQ(names_in(scratch_.path()), Names({"config.xml", "config.xml.new"}));
  EXPECT_TRUE(replace_durably(config_, "newer"));
  expect_only("newer");
}

TEST_F(DurableFile, TheFallbackIsNeverOpenToOthersThanTheOldVersion) {
  ASSERT_EQ(::chmod(config_.c_str(), 0600), 0);
  const mode_t old_mask = ::umask(0);
  const Fault kill = {"", SYS_fchmod, SECCOMP_RET_KILL_PROCESS};
  EXPECT_EQ(replace_with_faults({kNoUnnamedFiles, kill}, config_, "new"), kCrashed);
  ::umask(old_mask);
  EXPECT_EQ(mode_of(config_ + ".new"), 0600U);
}

// ---- Mount points ----

/// The file is a mount point: what it shows is another file, on a small disk.
class DurableMountedFile : public DurableFile {
 protected:
  static constexpr std::size_t kDiskBytes = std::size_t{128} * 1024;

  void SetUp() override {
    DurableFile::SetUp();
    if (!disk_.mounted()) GTEST_SKIP() << "mounts need a private namespace";
    write_file(source_, "mounted");
    ASSERT_EQ(::mount(source_.c_str(), config_.c_str(), nullptr, MS_BIND, nullptr), 0);
  }

  void TearDown() override { (void)::umount2(config_.c_str(), MNT_DETACH); }

  const ScratchDirectory elsewhere_;
  const SmallDisk disk_{elsewhere_.path(), kDiskBytes};
  const std::string source_ = elsewhere_ / "source.xml";
};

TEST_F(DurableMountedFile, IsWrittenInPlace) {
  const ino_t inode = inode_of(source_);
  ASSERT_EQ(::chmod(source_.c_str(), 0604), 0);
  for (const std::string& contents :
       {std::string("longer than the old version"), std::string("s"), std::string()}) {
    EXPECT_TRUE(replace_durably(config_, contents));
    expect_only(contents);
    EXPECT_EQ(read_file(source_), contents);
  }
  EXPECT_EQ(inode_of(source_), inode);
  EXPECT_EQ(mode_of(source_), 0604U);
}

TEST_F(DurableMountedFile, KeepsItsContentsOnAFullDisk) {
  EXPECT_FALSE(replace_durably(config_, std::string(kDiskBytes + 1, 'n')));
  expect_only("mounted");
  EXPECT_TRUE(replace_durably(config_, std::string(kDiskBytes / 2, 'n')));
  expect_only(std::string(kDiskBytes / 2, 'n'));
}

TEST_F(DurableMountedFile, KeepsItsContentsOnAFullDiskThatCannotReserveSpace) {
  const Fault no_reservation = {"", SYS_fallocate, fail_with(EOPNOTSUPP)};
  const std::string too_long(kDiskBytes + 1, 'n');
  EXPECT_EQ(replace_with_faults({no_reservation}, config_, too_long), 0);
  expect_only("mounted");
  EXPECT_EQ(replace_with_faults({no_reservation}, config_, "new"), 1);
  expect_only("new");
}

TEST_F(DurableMountedFile, KeepsItsContentsWhenReadOnly) {
  const char* const path = config_.c_str();
  ASSERT_EQ(::mount(nullptr, path, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_FALSE(replace_durably(config_, "new"));
  expect_only("mounted");
}

TEST_F(DurableMountedFile, AKillMeanwhileLeavesTheNewVersionWholeBesideIt) {
  const Fault kill = {"", kTruncate, SECCOMP_RET_KILL_PROCESS};
  EXPECT_EQ(replace_with_faults({kill}, config_, "new"), kCrashed);
  EXPECT_EQ(read_file(config_), "new\n\n\n\n");
  EXPECT_EQ(read_file(config_ + ".new"), "new");
  EXPECT_TRUE(replace_durably(config_, "newer"));
  expect_only("newer");
}

TEST_F(DurableMountedFile, AKillBeforeItIsWrittenLeavesTheOldVersion) {
  // The first write makes the new version, of one byte; the second replaces the mounted file.
  const Fault kill = {"", SYS_write, SECCOMP_RET_KILL_PROCESS, 2, BPF_JGT, 1};
  EXPECT_EQ(replace_with_faults({kill}, config_, "n"), kCrashed);
  EXPECT_EQ(read_file(config_), "mounted");
  EXPECT_EQ(read_file(config_ + ".new"), "n");
}

TEST_F(DurableMountedFile, AnErrorMeanwhileLeavesTheNewVersionWholeBesideIt) {
  const Fault error = {"", kTruncate, fail_with(EIO)};
  EXPECT_EQ(replace_with_faults({error}, config_, "new"), 0);
  EXPECT_EQ(read_file(config_ + ".new"), "new");
  EXPECT_TRUE(replace_durably(config_, "newer"));
  expect_only("newer");
}

TEST_F(DurableMountedFile, IsNotTouchedBeforeTheNewVersionIsSafeBesideIt) {
  EXPECT_EQ(replace_with_faults({unflushed_directory()}, config_, "new"), 0);
  expect_only("mounted");
}

// ---- Several processes ----

constexpr std::uint32_t kPause = SECCOMP_RET_TRACE;

TEST_F(DurableFile, AFileOfAnotherProcessIsNeverPutInPlace) {
  const Fault pause = {"", SYS_fsync, kPause};  // of the named file; the directory's is not reached
  const int result = in_paused_child(
      pause, [&] { return inject(kNoUnnamedFiles) && !replace_durably(config_, "new") ? 0 : 1; },
      [&] {
        ASSERT_EQ(read_file(config_ + ".new"), "new");
        ASSERT_EQ(::unlink((config_ + ".new").c_str()), 0);
        write_file(config_ + ".new", "half of ano");
      });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(read_file(config_), "old");
  EXPECT_EQ(read_file(config_ + ".new"), "half of ano");
}

TEST_F(DurableFile, ACallThatWasOvertakenLeavesTheOtherVersion) {
  for (const long call : {long{SYS_linkat}, long{SYS_renameat}}) {
    const Fault pause = {"", call, kPause};
    const int result = in_paused_child(
        pause, [&] { return replace_durably(config_, "overtaken") ? 1 : 0; },
        [&] { EXPECT_TRUE(replace_durably(config_, "overtaking")); });
    EXPECT_EQ(result, call == SYS_linkat ? 1 : 0);
    expect_only(call == SYS_linkat ? "overtaken" : "overtaking");
  }
}

TEST_F(DurableFile, ProcessesAtOnceNeverShowAPartOfAFile) {
  constexpr char kLetters[] = "abcdefgh";
  constexpr int kCallsPerProcess = 25;
  const auto version = [](char letter) {
    return std::string(std::size_t(20'000) * static_cast<std::size_t>(letter - 'a' + 1), letter);
  };
  const auto is_version = [&](const std::string& contents) {
    return contents == "old" || (!contents.empty() && contents == version(contents.front()));
  };
  std::vector<pid_t> writers;
  for (const char letter : std::string(kLetters)) {
    const pid_t writer = ::fork();
    if (writer == 0) {
      int successes = 0;
      for (int i = 0; i < kCallsPerProcess; ++i) {
        successes += replace_durably(config_, version(letter)) ? 1 : 0;
      }
      ::_exit(successes);
    }
    writers.push_back(writer);
  }
  int successes = 0;
  for (const pid_t writer : writers) {
    int status = 0;
    while (::waitpid(writer, &status, WNOHANG) == 0) {
      EXPECT_TRUE(is_version(read_file(config_)));
    }
    EXPECT_TRUE(WIFEXITED(status));
    successes += WEXITSTATUS(status);
  }
  EXPECT_GT(successes, 0);
  EXPECT_NE(read_file(config_), "old");
  EXPECT_TRUE(is_version(read_file(config_)));
  EXPECT_FALSE(exists(config_ + ".new"));
  RecordProperty("successes", successes);
}

}  // namespace
