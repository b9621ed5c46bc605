#include "utility/durable_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/limits.h>
#include <linux/seccomp.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "test_support.h"
#include "utility/file.h"

namespace {

using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::ScopedUmask;
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

// ---- Faults ----

/// What happens instead of a system call.
struct Fault {
  const char* name;
  long call;
  std::uint32_t action;  // of seccomp
  // Which calls are meant: all of them, or those where this holds for the argument's lower 32 bits.
  int argument = 0;
  std::uint16_t comparison = BPF_JGE;
  std::uint32_t value = 0;

  /// The same, for calls with an argument that equals @a number.
  [[nodiscard]] constexpr Fault where_equal(int index, std::uint32_t number) const {
    return {name, call, action, index, BPF_JEQ, number};
  }

  /// The same, for calls with an argument that has one of the @a flags.
  [[nodiscard]] constexpr Fault where_any_of(int index, std::uint32_t flags) const {
    return {name, call, action, index, BPF_JSET, flags};
  }

  /// The same, for calls with an argument greater than @a number.
  [[nodiscard]] constexpr Fault where_greater(int index, std::uint32_t number) const {
    return {name, call, action, index, BPF_JGT, number};
  }
};

constexpr Fault failing(const char* name, long call, int error) {
  return {name, call, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)};
}

constexpr Fault failing(long call, int error) { return failing("", call, error); }

constexpr Fault killing(long call) { return {"", call, SECCOMP_RET_KILL_PROCESS}; }

constexpr Fault pausing(long call) { return {"", call, SECCOMP_RET_TRACE}; }

constexpr int kOpenFlags = 2;  // the position of openat()'s flags

constexpr Fault without_unnamed_files(const char* name, int error) {
  return failing(name, SYS_openat, error).where_any_of(kOpenFlags, O_TMPFILE & ~O_DIRECTORY);
}

constexpr Fault kNoUnnamedFiles = without_unnamed_files("NoUnnamedFiles", EOPNOTSUPP);
constexpr Fault kNoNaming = failing("NoNaming", SYS_linkat, ENOENT);
constexpr Fault kNoRename = failing("NoRename", SYS_renameat, EBUSY);

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

/// Takes a right from this process, for the rest of its life.
bool drop_capability(int capability) {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  if (::syscall(SYS_capget, &header, sets) != 0) return false;
  sets[0].effective &= ~(1U << capability);
  return ::syscall(SYS_capset, &header, sets) == 0;
}

/// Runs @a body in a child process.
/// @return its result; kCrashed if a signal ended it
int in_child(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  int status = 0;
  if (::waitpid(child, &status, 0) != child) return kCrashed;
  return WIFEXITED(status) ? WEXITSTATUS(status) : kCrashed;
}

/// Runs @a body in a child process. When the child is about to make the call that @a pause names,
/// it waits while @a meanwhile runs here with the child's id. Later such calls do not wait.
/// @return the result of @a body; kCrashed if the child never made the call or a signal ended it
int in_paused_child(const Fault& pause, const std::function<int()>& body,
                    const std::function<void(pid_t)>& meanwhile) {
  const pid_t child = ::fork();
  if (child == 0) {
    const bool traced = ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0;
    ::_exit(traced && ::raise(SIGSTOP) == 0 && inject(pause) ? body() : kNotSetUp);
  }
  constexpr long kOptions = PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL;
  int status = 0;
  const auto stops = [&] { return ::waitpid(child, &status, 0) == child && WIFSTOPPED(status); };
  if (!stops()) return kCrashed;
  (void)::ptrace(PTRACE_SETOPTIONS, child, nullptr, kOptions);
  (void)::ptrace(PTRACE_CONT, child, nullptr, nullptr);
  if (!stops()) return kCrashed;
  meanwhile(child);
  do {
    (void)::ptrace(PTRACE_CONT, child, nullptr, nullptr);
  } while (stops());
  return WIFEXITED(status) ? WEXITSTATUS(status) : kCrashed;
}

/// A text argument of the system call that a paused child is about to make.
std::string text_argument(pid_t child, int index) {
  __ptrace_syscall_info call = {};
  if (::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof call, &call) < 0) return "";
  std::string text;
  for (auto address = call.seccomp.args[index]; text.find('\0') == std::string::npos;
       address += sizeof(long)) {
    const long word = ::ptrace(PTRACE_PEEKDATA, child, address, nullptr);
    text.append(reinterpret_cast<const char*>(&word), sizeof word);
  }
  return text.substr(0, text.find('\0'));
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

// ---- Files ----

struct stat status_of(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status;
}

ino_t inode_of(const std::string& path) { return status_of(path).st_ino; }

bool is_link(const std::string& path) {
  struct stat status = {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

/// The names in a directory, with the letters of temporary names replaced.
Names names_without_letters_in(const std::string& directory) {
  Names names = names_in(directory);
  for (std::string& name : names) {
    name = std::regex_replace(name, std::regex("\\.[a-z2-7]{6}$"), ".XXXXXX");
  }
  return names;
}

using Attributes = std::map<std::string, std::string>;

/// The extended attributes of a file, its ACL among them.
Attributes attributes_of(const std::string& path) {
  std::string names(XATTR_LIST_MAX, '\0');
  const ssize_t size = ::listxattr(path.c_str(), names.data(), names.size());
  Attributes attributes;
  const char* name = names.data();
  while (size > 0 && name < names.data() + size) {
    std::string value(1000, '\0');
    const ssize_t length = ::getxattr(path.c_str(), name, value.data(), value.size());
    EXPECT_GE(length, 0) << name;
    attributes[name] = value.substr(0, static_cast<std::size_t>(length));
    name += std::strlen(name) + 1;
  }
  return attributes;
}

bool set_attribute(const std::string& path, const char* name, const std::string& value) {
  return ::setxattr(path.c_str(), name, value.data(), value.size(), 0) == 0;
}

/// @return false where the file system has no ACLs, and without the program setfacl
bool set_acl(const std::string& path, const std::string& entries) {
  return std::system(("setfacl " + entries + " " + path + " 2>/dev/null").c_str()) == 0;
}

constexpr char kNoAcls[] = "no setfacl, or a file system without ACLs";
constexpr uid_t kUser = 1234;
constexpr gid_t kGroup = 5678;

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
  EXPECT_STREQ(old, "old");  // a process that has the old version open still reads all of it
}

TEST_F(DurableFile, KeepsTheModeIncludingSpecialBits) {
  for (const mode_t mode : {mode_t{0600}, mode_t{0644}, mode_t{0666}, mode_t{04755}}) {
    ASSERT_EQ(::chmod(config_.c_str(), mode), 0);
    EXPECT_TRUE(replace_durably(config_, "new"));
    EXPECT_EQ(mode_of(config_), mode);
  }
}

TEST_F(DurableFile, KeepsTheOwner) {
  if (::chown(config_.c_str(), kUser, kGroup) != 0) GTEST_SKIP() << "only root gives files away";
  ASSERT_EQ(::chmod(config_.c_str(), 06755), 0);
  const ino_t inode = inode_of(config_);
  ASSERT_TRUE(replace_durably(config_, "new"));
  const struct stat status = status_of(config_);
  EXPECT_NE(status.st_ino, inode);
  EXPECT_EQ(status.st_uid, kUser);
  EXPECT_EQ(status.st_gid, kGroup);
  EXPECT_EQ(status.st_mode & 07777U, 06755U);
}

TEST_F(DurableFile, CreatesAMissingFileAsAnyNewFile) {
  const ScopedUmask mask(027);
  EXPECT_TRUE(replace_durably(scratch_ / "other.xml", "new"));
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

TEST_F(DurableFile, FailsOnAReadOnlyDirectory) {
  if (!test_support::in_private_namespace()) GTEST_SKIP() << "mounts need a private namespace";
  const char* const directory = scratch_.path().c_str();
  ASSERT_EQ(::mount(directory, directory, nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(::mount(nullptr, directory, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_FALSE(replace_durably(config_, "new"));
  expect_only("old");
  ASSERT_EQ(::umount(directory), 0);
}

// ---- Extended attributes ----

/// The old version, on the file system of the temporary directory and on one in memory, which
/// support different attributes; with and without unnamed files.
class DurableFileAttributes : public DurableFile, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    if (in_memory_) {
      disk_.emplace(scratch_.path(), std::size_t{1024} * 1024);
      if (!disk_->mounted()) GTEST_SKIP() << "mounts need a private namespace";
    }
    DurableFile::SetUp();
  }

  /// Replaces the file in each way, and expects @a attributes and the old mode after each.
  void expect_after_saves(const Attributes& attributes) const {
    const mode_t mode = mode_of(config_);
    for (const std::vector<Fault>& faults : {std::vector<Fault>(), {kNoUnnamedFiles}}) {
      const ino_t inode = inode_of(config_);
      EXPECT_EQ(replace_with_faults(faults, config_, "new"), 1);
      EXPECT_NE(inode_of(config_), inode);
      EXPECT_EQ(attributes_of(config_), attributes);
      EXPECT_EQ(mode_of(config_), mode);
      expect_only("new");
    }
  }

  const bool in_memory_ = std::string(GetParam()) == "InMemory";
  std::optional<SmallDisk> disk_;
};

INSTANTIATE_TEST_SUITE_P(EachFileSystem, DurableFileAttributes,
                         testing::Values("OnDisk", "InMemory"),
                         [](const auto& place) { return std::string(place.param); });

TEST_P(DurableFileAttributes, KeepsTheAcl) {
  ASSERT_EQ(::chmod(config_.c_str(), 0604), 0);
  if (!set_acl(config_, "-m u:1234:r,g:5678:rw,m::rw")) GTEST_SKIP() << kNoAcls;
  ASSERT_EQ(mode_of(config_), 0664U);  // the group permission is the mask now
  expect_after_saves(attributes_of(config_));
}

TEST_P(DurableFileAttributes, KeepsAnAclThatDiffersFromTheInheritedOne) {
  if (!set_acl(config_, "-m u:1234:r")) GTEST_SKIP() << kNoAcls;
  ASSERT_TRUE(set_acl(scratch_.path(), "-d -m u:4321:rwx"));
  expect_after_saves(attributes_of(config_));
}

TEST_P(DurableFileAttributes, RemovesAnInheritedAcl) {
  ASSERT_EQ(::chmod(config_.c_str(), 0660), 0);
  if (!set_acl(scratch_.path(), "-d -m u:4321:rwx")) GTEST_SKIP() << kNoAcls;
  const Attributes before = attributes_of(config_);
  ASSERT_EQ(before.count("system.posix_acl_access"), 0U);
  expect_after_saves(before);
}

TEST_P(DurableFileAttributes, KeepsAttributesOfEachKind) {
  const bool user = set_attribute(config_, "user.norvak", std::string("a\0b", 3));
  const bool trusted = set_attribute(config_, "trusted.norvak", "");
  const bool security = set_attribute(config_, "security.norvak", "label");
  if (!user && !trusted && !security) GTEST_SKIP() << "no extended attributes here";
  expect_after_saves(attributes_of(config_));
}

TEST_P(DurableFileAttributes, KeepsFileCapabilities) {
  // cap_net_raw+ep. A write to the file and a change of its owner take them away.
  const std::string capabilities("\1\0\0\2\0\40\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
  if (!set_attribute(config_, "security.capability", capabilities)) {
    GTEST_SKIP() << "no file capabilities here";
  }
  expect_after_saves(attributes_of(config_));
}

TEST_P(DurableFileAttributes, AreNotCopiedWhereTheyAreDerivedFromTheContents) {
  const Attributes before = attributes_of(config_);
  const bool ima = set_attribute(config_, "security.ima", "\4\4digest of the old contents");
  const bool evm = set_attribute(config_, "security.evm", "\2 signature of the old attributes");
  if (!ima && !evm) GTEST_SKIP() << "only root sets these attributes";
  expect_after_saves(before);
}

TEST_P(DurableFileAttributes, AreKeptInPlaceWhenOneIsRefused) {
  if (!set_acl(config_, "-m u:1234:r")) GTEST_SKIP() << kNoAcls;
  const Attributes before = attributes_of(config_);
  const ino_t inode = inode_of(config_);
  for (const long call : {SYS_flistxattr, SYS_fgetxattr, SYS_fsetxattr}) {
    EXPECT_EQ(replace_with_faults({failing(call, EPERM)}, config_, "new"), 1);
    EXPECT_EQ(inode_of(config_), inode);
    EXPECT_EQ(attributes_of(config_), before);
    expect_only("new");
  }
}

TEST_P(DurableFileAttributes, AreKeptInPlaceWhenAnInheritedOneCannotBeRemoved) {
  if (!set_acl(scratch_.path(), "-d -m u:4321:rwx")) GTEST_SKIP() << kNoAcls;
  const Attributes before = attributes_of(config_);
  const ino_t inode = inode_of(config_);
  EXPECT_EQ(replace_with_faults({failing(SYS_fremovexattr, EPERM)}, config_, "new"), 1);
  EXPECT_EQ(inode_of(config_), inode);
  EXPECT_EQ(attributes_of(config_), before);
  expect_only("new");
}

TEST_F(DurableFile, ReplacesTheFileWhereThereAreNoExtendedAttributes) {
  const ino_t inode = inode_of(config_);
  EXPECT_EQ(replace_with_faults({failing(SYS_flistxattr, EOPNOTSUPP)}, config_, "new"), 1);
  EXPECT_NE(inode_of(config_), inode);
  expect_only("new");
}

// ---- Symbolic links ----

class DurableFileLink : public DurableFile {
 protected:
  void make_link(const std::string& target, const std::string& name) const {
    ASSERT_EQ(::symlink(target.c_str(), (scratch_ / name).c_str()), 0);
  }

  /// Makes a chain of @a length links to the file.
  /// @return the name of the first link
  [[nodiscard]] std::string make_chain(int length) const {
    std::string target = "config.xml";
    for (int i = 1; i <= length; ++i) {
      const std::string link = "link" + std::to_string(length) + "-" + std::to_string(i);
      make_link(target, link);
      target = link;
    }
    return target;
  }
};

TEST_F(DurableFileLink, ReplacesTheTargetAndKeepsTheLink) {
  ASSERT_EQ(::mkdir((scratch_ / "etc").c_str(), 0755), 0);
  make_link(config_, "absolute");
  make_link("config.xml", "relative");
  make_link("../relative", "etc/chain");
  make_link(".", "here");
  for (const char* name : {"absolute", "relative", "etc/chain", "here/etc/chain"}) {
    const ino_t inode = inode_of(config_);
    EXPECT_TRUE(replace_durably(scratch_ / name, name));
    EXPECT_EQ(read_file(config_), name);
    EXPECT_NE(inode_of(config_), inode);
    EXPECT_TRUE(is_link(scratch_ / name));
    EXPECT_FALSE(is_link(config_));
  }
  EXPECT_EQ(names_in(scratch_.path()),
            Names({"absolute", "config.xml", "etc", "here", "relative"}));
  EXPECT_EQ(names_in(scratch_ / "etc"), Names({"chain"}));
}

TEST_F(DurableFileLink, FollowsAsManyLinksAsTheKernel) {
  constexpr int kMostLinks = 40;
  const std::string longest = make_chain(kMostLinks);
  const std::string too_long = make_chain(kMostLinks + 1);
  const ino_t inode = inode_of(config_);
  EXPECT_TRUE(replace_durably(scratch_ / longest, "new"));
  EXPECT_EQ(read_file(config_), "new");
  EXPECT_NE(inode_of(config_), inode);
  EXPECT_FALSE(replace_durably(scratch_ / too_long, "newer"));
  EXPECT_EQ(read_file(config_), "new");
  for (const std::string& name : names_in(scratch_.path())) {
    EXPECT_EQ(is_link(scratch_ / name), name != "config.xml") << name;
  }
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

// ---- Full and failing disks ----

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
  if (!disk.mounted()) GTEST_SKIP() << "mounts need a private namespace";
  const std::string path = scratch_ / "disk/config.xml";
  const std::string old(100'000, 'o');
  write_file(path, old);

  EXPECT_FALSE(replace_durably(path, std::string(kDiskBytes + 1, 'n')));
  EXPECT_TRUE(read_file(path) == old);
  EXPECT_EQ(replace_with_faults({kNoUnnamedFiles}, path, std::string(kDiskBytes + 1, 'n')), 0);
  EXPECT_TRUE(read_file(path) == old);
  EXPECT_EQ(names_in(scratch_ / "disk"), Names({"config.xml"}));

  const ino_t inode = inode_of(path);  // the space of the failed versions is free again
  EXPECT_TRUE(replace_durably(path, std::string(100'000, 'n')));
  EXPECT_TRUE(read_file(path) == std::string(100'000, 'n'));
  EXPECT_NE(inode_of(path), inode);
}

TEST_F(DurableFile, IsWrittenInPlaceWhereTheDiskHasNoRoomForBothVersions) {
  constexpr std::size_t kDiskBytes = std::size_t{128} * 1024;
  ASSERT_EQ(::mkdir((scratch_ / "disk").c_str(), 0755), 0);
  const SmallDisk disk(scratch_ / "disk", kDiskBytes);
  if (!disk.mounted()) GTEST_SKIP() << "mounts need a private namespace";
  const std::string path = scratch_ / "disk/config.xml";
  for (const char letter : {'a', 'b'}) {
    EXPECT_TRUE(replace_durably(path, std::string(100'000, letter)));
    EXPECT_TRUE(read_file(path) == std::string(100'000, letter));
    EXPECT_EQ(names_in(scratch_ / "disk"), Names({"config.xml"}));
  }
}

TEST_F(DurableFile, KeepsTheOldVersionOnABrokenDisk) {
  for (const Fault& fault : {failing(SYS_write, EIO), failing(SYS_fsync, EIO)}) {
    for (const std::vector<Fault>& faults : {std::vector{fault}, {fault, kNoUnnamedFiles}}) {
      EXPECT_EQ(replace_with_faults(faults, config_, "longer than the old version"), 0);
      expect_only("old");
    }
  }
}

/// The flush of the directory fails, which replace_durably() opens first of all.
Fault unflushed_directory() {
  const int next_descriptor = ::dup(STDIN_FILENO);
  EXPECT_EQ(::close(next_descriptor), 0);
  return failing(SYS_fsync, EIO).where_equal(0, static_cast<std::uint32_t>(next_descriptor));
}

TEST_F(DurableFile, ReportsAnUnflushedDirectory) {
  const ino_t inode = inode_of(config_);
  EXPECT_EQ(replace_with_faults({unflushed_directory()}, config_, "new"), 0);
  expect_only("new");
  EXPECT_NE(inode_of(config_), inode);
}

// ---- Temporary names ----

class DurableFileFallback : public DurableFile, public testing::WithParamInterface<Fault> {};

TEST_P(DurableFileFallback, ReplacesTheFileAllTheSame) {
  ASSERT_EQ(::chmod(config_.c_str(), 0604), 0);
  const ino_t inode = inode_of(config_);
  EXPECT_EQ(replace_with_faults({GetParam()}, config_, "new"), 1);
  EXPECT_NE(inode_of(config_), inode);
  expect_only("new");
  EXPECT_EQ(mode_of(config_), 0604U);
}

INSTANTIATE_TEST_SUITE_P(NoUnnamedFiles, DurableFileFallback,
                         testing::Values(without_unnamed_files("FileSystem", EOPNOTSUPP),
                                         without_unnamed_files("OldKernel", EISDIR)),
                         test_support::case_name);

TEST_F(DurableFile, TheNamedFileIsNeverOpenToOthersThanTheOldVersion) {
  ASSERT_EQ(::chmod(config_.c_str(), 0600), 0);
  const ScopedUmask mask(0);
  EXPECT_EQ(replace_with_faults({kNoUnnamedFiles, killing(SYS_fchmod)}, config_, "new"), kCrashed);
  const Names names = names_in(scratch_.path());
  ASSERT_EQ(names.size(), 2U);
  EXPECT_EQ(mode_of(scratch_ / names[1]), 0600U);
}

TEST_F(DurableFile, LeavesFilesWithSimilarNamesAlone) {
  ASSERT_EQ(::mkdir((config_ + ".new").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((config_ + ".abcdef").c_str(), 0755), 0);
  write_file(config_ + ".bcdefg", "a package's");
  const ino_t inode = inode_of(config_);
  EXPECT_TRUE(replace_durably(config_, "new"));
  EXPECT_NE(inode_of(config_), inode);
  EXPECT_EQ(names_in(scratch_.path()),
            Names({"config.xml", "config.xml.abcdef", "config.xml.bcdefg", "config.xml.new"}));
  EXPECT_EQ(read_file(config_ + ".bcdefg"), "a package's");
}

TEST_F(DurableFile, AFileUnderItsOldTemporaryNameStays) {
  write_file(config_ + ".new", "a package's");
  EXPECT_TRUE(replace_durably(config_, "new"));
  EXPECT_EQ(read_file(config_ + ".new"), "a package's");
}

/// How the new version gets its temporary name.
struct Naming {
  const char* name;
  Fault pause;
  int name_argument;
  std::vector<Fault> faults;
};

/// Something that another process puts under the temporary name just before it is used.
class DurableFileTakenName : public DurableFile, public testing::WithParamInterface<Naming> {
 protected:
  /// Replaces the file while @a plant puts something under the name that it wants to use first.
  /// @return the path of that name
  std::string replace_while_planting(const std::function<void(const std::string&)>& plant) {
    std::string path;
    const ino_t inode = inode_of(config_);
    const int result = in_paused_child(
        GetParam().pause,
        [&] {
          for (const Fault& fault : GetParam().faults) {
            if (!inject(fault)) return kNotSetUp;
          }
          return replace_durably(config_, "new") ? 1 : 0;
        },
        [&](pid_t child) {
          path = scratch_ / text_argument(child, GetParam().name_argument);
          plant(path);
        });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(read_file(config_), "new");
    EXPECT_FALSE(is_link(config_));
    EXPECT_NE(inode_of(config_), inode);  // another name was free
    EXPECT_TRUE(std::regex_match(path, std::regex(".*/config\\.xml\\.[a-z2-7]{6}"))) << path;
    EXPECT_EQ(names_without_letters_in(scratch_.path()),
              Names({"config.xml", "config.xml.XXXXXX", "elsewhere"}));
    return path;
  }

  void SetUp() override {
    DurableFile::SetUp();
    write_file(elsewhere_, "kept");
  }

  const std::string elsewhere_ = scratch_ / "elsewhere/file";
};

TEST_P(DurableFileTakenName, OfAFileIsNotUsed) {
  const std::string path =
      replace_while_planting([](const std::string& name) { write_file(name, "another's"); });
  EXPECT_EQ(read_file(path), "another's");
}

TEST_P(DurableFileTakenName, OfALinkIsNotUsed) {
  const std::string path = replace_while_planting(
      [&](const std::string& name) { ASSERT_EQ(::symlink(elsewhere_.c_str(), name.c_str()), 0); });
  EXPECT_TRUE(is_link(path));
  EXPECT_EQ(read_file(elsewhere_), "kept");
}

TEST_P(DurableFileTakenName, OfADirectoryIsNotUsed) {
  (void)replace_while_planting(
      [](const std::string& name) { ASSERT_EQ(::mkdir(name.c_str(), 0755), 0); });
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, DurableFileTakenName,
    testing::Values(Naming{"WhenAnUnnamedFileIsNamed", pausing(SYS_linkat), 3, {}},
                    Naming{"WhenANamedFileIsCreated",
                           pausing(SYS_openat).where_any_of(kOpenFlags, O_EXCL),
                           1,
                           {kNoUnnamedFiles}}),
    test_support::case_name);

// ---- Writing in place ----

constexpr Fault kNoNewFile = failing("NewFile", SYS_openat, EACCES)
                                 .where_any_of(kOpenFlags, (O_TMPFILE & ~O_DIRECTORY) | O_EXCL);

class DurableFileRefusal : public DurableFile, public testing::WithParamInterface<Fault> {};

TEST_P(DurableFileRefusal, LeadsToAWriteInPlace) {
  ASSERT_EQ(::chmod(config_.c_str(), 0604), 0);
  const ino_t inode = inode_of(config_);
  for (const std::vector<Fault>& faults :
       {std::vector{GetParam()}, {GetParam(), kNoUnnamedFiles}}) {
    for (const char* contents : {"longer than the old version", "s", "t", ""}) {
      if (GetParam().call == SYS_linkat && faults.size() > 1) continue;  // no link, no refusal
      EXPECT_EQ(replace_with_faults(faults, config_, contents), 1);
      expect_only(contents);
      EXPECT_EQ(inode_of(config_), inode);
      EXPECT_EQ(mode_of(config_), 0604U);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, DurableFileRefusal,
    testing::Values(kNoNewFile, failing("Owner", kChown, EPERM), failing("Mode", SYS_fchmod, EPERM),
                    kNoNaming, kNoRename,
                    failing("Directory", SYS_openat, EACCES).where_any_of(kOpenFlags, O_DIRECTORY)),
    test_support::case_name);

TEST_F(DurableFile, IsWrittenInPlaceWithoutTheRightToGiveFilesAway) {
  if (::chown(config_.c_str(), kUser, kGroup) != 0) GTEST_SKIP() << "only root gives files away";
  ASSERT_EQ(::chmod(config_.c_str(), 0640), 0);
  const ino_t inode = inode_of(config_);
  for (const int capability : {CAP_CHOWN, CAP_FOWNER}) {
    const std::string contents = "new without " + std::to_string(capability);
    EXPECT_EQ(in_child([&] {
                if (!drop_capability(capability)) return kNotSetUp;
                return replace_durably(config_, contents) ? 1 : 0;
              }),
              1);
    expect_only(contents);
    EXPECT_EQ(inode_of(config_), inode);
    EXPECT_EQ(status_of(config_).st_uid, kUser);
    EXPECT_EQ(mode_of(config_), 0640U);
  }
}

TEST_F(DurableFile, AnOwnFileIsReplacedWithoutTheRightToGiveFilesAway) {
  const ino_t inode = inode_of(config_);
  EXPECT_EQ(in_child([&] {
              if (!drop_capability(CAP_CHOWN) || !drop_capability(CAP_FOWNER)) return kNotSetUp;
              return replace_durably(config_, "new") ? 1 : 0;
            }),
            1);
  expect_only("new");
  EXPECT_NE(inode_of(config_), inode);
}

TEST_F(DurableFile, IsWrittenInPlaceWithoutProc) {
  if (!test_support::in_private_namespace()) GTEST_SKIP() << "mounts need a private namespace";
  const ino_t inode = inode_of(config_);
  ASSERT_EQ(::mount("norvak_test", "/proc", "tmpfs", 0, nullptr), 0);
  EXPECT_TRUE(replace_durably(config_, "new"));
  ASSERT_EQ(::umount("/proc"), 0);
  expect_only("new");
  EXPECT_EQ(inode_of(config_), inode);
}

/// Nothing but a write in place is possible.
class DurableFileInPlace : public DurableFile {
 protected:
  /// The result of replace_durably() with one more fault.
  [[nodiscard]] int replace(const Fault& fault, const std::string& contents) const {
    return replace_with_faults({kNoNewFile, fault}, config_, contents);
  }
};

TEST_F(DurableFileInPlace, IsKeptWhenItsSpaceCannotBeReserved) {
  // The extension to eight bytes, and its flush.
  for (const Fault& fault :
       {failing(SYS_write, ENOSPC).where_equal(2, 5), failing(SYS_fsync, ENOSPC)}) {
    EXPECT_EQ(replace(fault, "new text"), 0);
    expect_only("old");
  }
}

TEST_F(DurableFileInPlace, AKillBeforeTheContentsAreWrittenLeavesTheOldOnesAndLineFeeds) {
  EXPECT_EQ(replace(killing(SYS_write).where_equal(2, 5), "new text"), kCrashed);
  expect_only("old");
  EXPECT_EQ(replace(killing(SYS_write).where_equal(2, 8), "new text"), kCrashed);
  expect_only("old\n\n\n\n\n");
  EXPECT_TRUE(replace_durably(config_, "newer"));
  expect_only("newer");
}

TEST_F(DurableFileInPlace, AKillBeforeTheFileIsShortenedLeavesTheNewContentsAndLineFeeds) {
  write_file(config_, "the old version");
  EXPECT_EQ(replace(killing(kTruncate), "new"), kCrashed);
  expect_only("new" + std::string(12, '\n'));
  EXPECT_TRUE(replace_durably(config_, "newer"));
  expect_only("newer");
}

TEST_F(DurableFileInPlace, AnErrorIsReported) {
  EXPECT_EQ(replace(failing(SYS_write, EIO).where_equal(2, 8), "new text"), 0);
  write_file(config_, "the old version");
  EXPECT_EQ(replace(failing(kTruncate, EIO), "new"), 0);
  EXPECT_EQ(replace(failing(SYS_fsync, EIO), "new"), 0);
}

TEST_F(DurableFile, IsWrittenInPlaceWhereItIsAMountPoint) {
  const ScratchDirectory elsewhere;
  const std::string source = elsewhere / "source.xml";
  write_file(source, "mounted");
  const test_support::FileMount mount(source, config_);
  if (!mount.mounted()) GTEST_SKIP() << "mounts need a private namespace";
  const ino_t inode = inode_of(source);
  for (const char* contents : {"longer than the old version", "s", ""}) {
    EXPECT_TRUE(replace_durably(config_, contents));
    expect_only(contents);
    EXPECT_EQ(read_file(source), contents);
  }
  EXPECT_EQ(inode_of(source), inode);
  const char* const path = config_.c_str();
  ASSERT_EQ(::mount(nullptr, path, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_FALSE(replace_durably(config_, "new"));
  expect_only("");
}

// ---- Kills ----

TEST_F(DurableFile, AKillBeforeTheNamingLeavesNothing) {
  for (const long call : {kChown, long{SYS_fchmod}, long{SYS_flistxattr}, long{SYS_write},
                          long{SYS_fsync}, long{SYS_linkat}}) {
    EXPECT_EQ(replace_with_faults({killing(call)}, config_, "new"), kCrashed);
    expect_only("old");
  }
}

TEST_F(DurableFile, AKillBeforeTheRenameLeavesATemporaryName) {
  for (const std::vector<Fault>& faults :
       {std::vector{killing(SYS_renameat)}, {kNoUnnamedFiles, killing(SYS_write)}}) {
    EXPECT_EQ(replace_with_faults(faults, config_, "new"), kCrashed);
    EXPECT_EQ(read_file(config_), "old");
  }
  const Names left = {"config.xml", "config.xml.XXXXXX", "config.xml.XXXXXX"};
  EXPECT_EQ(names_without_letters_in(scratch_.path()), left);
  EXPECT_TRUE(replace_durably(config_, "newer"));
  EXPECT_EQ(read_file(config_), "newer");
  EXPECT_EQ(names_without_letters_in(scratch_.path()), left);
}

// ---- Several processes ----

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
  for (const pid_t writer : writers) {
    int status = 0;
    while (::waitpid(writer, &status, WNOHANG) == 0) {
      EXPECT_TRUE(is_version(read_file(config_)));
    }
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), kCallsPerProcess);
  }
  EXPECT_NE(read_file(config_), "old");
  EXPECT_TRUE(is_version(read_file(config_)));
  EXPECT_EQ(names_in(scratch_.path()), Names({"config.xml"}));
}

}  // namespace
