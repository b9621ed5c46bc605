#include "help.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "faults.h"
#include "test_support.h"
#include "utility/file.h"
#include "utility/string_list.h"

namespace {

using test_support::AgentTest;
using test_support::exists;
using test_support::Fault;
using test_support::FileMount;
using test_support::grow_file;
using test_support::IdleProcess;
using test_support::kTwoGib;
using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::run_in_child;
using test_support::run_in_pid_namespace;
using test_support::ScopedFault;
using test_support::ScopedUmask;
using test_support::ScopedVariable;
using test_support::ScratchDirectory;
using test_support::SmallDisk;
using test_support::write_file;
using test_support::write_install_path;
using test_support::write_script;

constexpr char kNoNamespaces[] = "this host does not allow private namespaces";
constexpr std::size_t kDiskBytes = 65536;
constexpr std::size_t kManyEntriesBytes = std::size_t{16} * 1024 * 1024;

/// Whether the process, which has not been waited for, still runs.
bool lives(const IdleProcess& process) {
  siginfo_t end = {};
  const auto id = static_cast<id_t>(process.pid());
  return ::waitid(P_PID, id, &end, WEXITED | WNOHANG | WNOWAIT) == 0 && end.si_pid == 0;
}

// Stopping the agent. The signal goes to whatever the pid file names, so these tests run in PID
// namespaces, which confine it.

class StopAgent : public AgentTest {
 protected:
  /// Runs @a body, with its expectations, in its own PID namespace and session.
  static void in_namespace(const std::function<void()>& body) {
    const std::optional<int> status = run_in_pid_namespace(body);
    if (!status) GTEST_SKIP() << kNoNamespaces;
    EXPECT_EQ(*status, 0);
  }

  void write_pid(const std::string& text) const { write_file(agent("norvak.pid"), text); }
  [[nodiscard]] bool has_pid_file() const { return exists(agent("norvak.pid")); }

  /// Expects that a pid file with this text makes the function kill @a process and remove the file.
  void expect_killed(const std::string& text, IdleProcess& process) const {
    write_pid(text);
    EXPECT_EQ(CHelper::stop_norvak_agent(), 0) << text;
    EXPECT_EQ(process.wait_for_signal(), SIGKILL) << text;
    EXPECT_FALSE(has_pid_file()) << text;
  }

  /// Expects that a pid file with this text makes the function kill the caller's process group.
  void expect_group_killed(const std::string& text) const {
    in_namespace([&] {
      const IdleProcess bystander;
      int ends[2] = {-1, -1};
      ASSERT_EQ(::pipe(ends), 0);
      const pid_t caller = ::fork();
      if (caller == 0) stop_in_new_group(text);
      (void)::close(ends[1]);
      int status = 0;
      ASSERT_EQ(::waitpid(caller, &status, 0), caller);
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << text;
      char byte = 0;
      EXPECT_EQ(::read(ends[0], &byte, 1), 0) << "the rest of the group has not ended";
      EXPECT_TRUE(lives(bystander));
      EXPECT_TRUE(has_pid_file()) << "no process was left to remove it";
    });
  }

 private:
  [[noreturn]] void stop_in_new_group(const std::string& text) const {
    (void)::setpgid(0, 0);
    {
      const IdleProcess member(IdleProcess::Group::kOfTheCaller);
      write_pid(text);
      (void)CHelper::stop_norvak_agent();
    }
    ::_exit(0);
  }
};

TEST_F(StopAgent, KillsTheLiveProcessAndRemovesThePidFile) {
  in_namespace([this] {
    IdleProcess process;
    const IdleProcess bystander;
    expect_killed(std::to_string(process.pid()) + "\n", process);
    EXPECT_TRUE(lives(bystander));
  });
}

TEST_F(StopAgent, ReadsTheFirstLineOnly) {
  in_namespace([this] {
    IdleProcess process;
    const IdleProcess bystander;
    expect_killed(std::to_string(process.pid()) + "\n" + std::to_string(bystander.pid()) + "\n",
                  process);
    EXPECT_TRUE(lives(bystander));
  });
}

TEST_F(StopAgent, ReadsTheNumberLikeStrtol) {
  in_namespace([this] {
    for (const char* const pattern :
         {"%", " \t%", "+%", "00%", "% ", "%\r\n", "%x", "%.5\n", "% 1\n", "%-1\n"}) {
      IdleProcess process;
      std::string text = pattern;
      text.replace(text.find('%'), 1, std::to_string(process.pid()));
      expect_killed(text, process);
    }
  });
}

TEST_F(StopAgent, ReadsThirtyOneCharacters) {
  in_namespace([this] {
    for (const char filler : {' ', '0'}) {
      IdleProcess process;
      std::string text = std::to_string(process.pid());
      text.insert(0, 31 - text.size(), filler);
      expect_killed(text + "7\n", process);
    }
  });
}

TEST_F(StopAgent, KeepsOnlyTheLow32BitsOfTheNumber) {
  if (sizeof(long) == sizeof(int)) GTEST_SKIP() << "long has no more than 32 bits here";
  in_namespace([this] {
    IdleProcess process;
    expect_killed(std::to_string(0x700000000 + process.pid()), process);
  });
}

TEST_F(StopAgent, ANegativeNumberNamesAProcessGroup) {
  in_namespace([this] {
    IdleProcess leader;
    while (::getpgid(leader.pid()) != leader.pid()) (void)::usleep(100);
    expect_killed("-" + std::to_string(leader.pid()), leader);
  });
}

TEST_F(StopAgent, FailsForAnEndedProcessAndKeepsThePidFile) {
  in_namespace([this] {
    const pid_t ended = ::fork();
    if (ended == 0) ::_exit(0);
    ASSERT_EQ(::waitpid(ended, nullptr, 0), ended);
    const std::string text = std::to_string(ended) + "\n";
    write_pid(text);
    EXPECT_EQ(CHelper::stop_norvak_agent(), -1);
    EXPECT_EQ(read_file(agent("norvak.pid")), text);
  });
}

TEST_F(StopAgent, DoesNotWaitForTheEndOfTheProcess) {
  in_namespace([this] {
    IdleProcess process;
    write_pid(std::to_string(process.pid()));
    EXPECT_EQ(CHelper::stop_norvak_agent(), 0);
    EXPECT_EQ(::kill(process.pid(), 0), 0) << "it has not been waited for";
    EXPECT_EQ(process.wait_for_signal(), SIGKILL);
  });
}

TEST_F(StopAgent, WithoutAPidFileNothingIsSignalled) {
  in_namespace([] {
    const IdleProcess bystander;
    EXPECT_EQ(CHelper::stop_norvak_agent(), -1);
    EXPECT_TRUE(lives(bystander));
  });
}

TEST_F(StopAgent, APidFileThatCannotBeReadNamesNoProcess) {
  ASSERT_EQ(::mkdir(agent("norvak.pid").c_str(), 0755), 0);  // can be opened, but not read
  in_namespace([this] {
    const IdleProcess bystander(IdleProcess::Group::kOfTheCaller);
    EXPECT_EQ(CHelper::stop_norvak_agent(), -1);
    EXPECT_TRUE(lives(bystander));
    EXPECT_TRUE(has_pid_file());
  });
}

TEST_F(StopAgent, APidFileThatCannotBeDeletedFailsAfterTheSignal) {
  in_namespace([this] {
    IdleProcess process;
    write_pid(std::to_string(process.pid()) + "\n");
    const FileMount mount(agent("norvak.pid"), agent("norvak.pid"));
    ASSERT_TRUE(mount.mounted());
    EXPECT_EQ(CHelper::stop_norvak_agent(), -1);
    EXPECT_EQ(process.wait_for_signal(), SIGKILL);
    EXPECT_TRUE(has_pid_file());
  });
}

TEST_F(StopAgent, APidFileWithoutANumberKillsTheGroupOfTheCaller) {
  for (const char* const text : {"", "\n", "agent\n", "0\n", "-0", "0x10\n", " \n"}) {
    expect_group_killed(text);
  }
}

TEST_F(StopAgent, ANumberWithoutLow32BitsKillsTheGroupOfTheCaller) {
  if (sizeof(long) == sizeof(int)) GTEST_SKIP() << "long has no more than 32 bits here";
  expect_group_killed("4294967296\n");
}

TEST_F(StopAgent, MinusOneKillsEveryProcessButTheCaller) {
  in_namespace([this] {
    IdleProcess first;
    IdleProcess second(IdleProcess::Group::kOfTheCaller);
    expect_killed("-1\n", first);
    EXPECT_EQ(second.wait_for_signal(), SIGKILL);
  });
}

TEST_F(StopAgent, ANumberTooLargeForLongMeansMinusOne) {
  if (sizeof(long) == sizeof(int)) GTEST_SKIP() << "long has no more than 32 bits here";
  in_namespace([this] {
    IdleProcess process;
    expect_killed("99999999999999999999\n", process);
  });
}

// Starting the agent.

class StartAgent : public AgentTest {};

TEST_F(StartAgent, RunsTheStartupScriptAndWaitsForIt) {
  write_script(agent("startup.sh"), "sleep 0.05; echo \"$0 $#\" > " + agent("trace") + "\n");
  EXPECT_EQ(CHelper::start_norvak_agent(), 0);
  EXPECT_EQ(read_file(agent("trace")), agent("startup.sh") + " 0\n");
}

TEST_F(StartAgent, PassesTheEnvironmentOn) {
  const ScopedVariable variable("LD_LIBRARY_PATH", "/opt/agent");
  write_script(agent("startup.sh"), "echo \"$LD_LIBRARY_PATH\" > " + agent("trace") + "\n");
  EXPECT_EQ(CHelper::start_norvak_agent(), 0);
  EXPECT_EQ(read_file(agent("trace")), "/opt/agent\n");
}

TEST_F(StartAgent, IgnoresTheResultOfTheScript) {
  write_script(agent("startup.sh"), "touch " + agent("trace") + "; exit 3\n");
  EXPECT_EQ(CHelper::start_norvak_agent(), 0);
  EXPECT_TRUE(exists(agent("trace")));
  write_script(agent("startup.sh"), "kill -9 $$\n");
  EXPECT_EQ(CHelper::start_norvak_agent(), 0);
}

TEST_F(StartAgent, IgnoresThatThereIsNoScript) {
  EXPECT_EQ(CHelper::start_norvak_agent(), 0);
  write_file(agent("startup.sh"), "#!/bin/sh\ntouch " + agent("trace") + "\n");
  EXPECT_EQ(CHelper::start_norvak_agent(), 0) << "it cannot be executed";
  EXPECT_FALSE(exists(agent("trace")));
}

TEST_F(StartAgent, TheShellSplitsADirectoryWithABlank) {
  write_install_path(agent("the agent") + "\n");
  write_script(agent("the agent/startup.sh"), "touch " + agent("right") + "\n");
  write_script(agent("the"), "echo \"$@\" > " + agent("trace") + "\n");
  EXPECT_EQ(CHelper::start_norvak_agent(), 0);
  EXPECT_FALSE(exists(agent("right")));
  EXPECT_EQ(read_file(agent("trace")), "agent/startup.sh\n");
}

// Moving files.

class RenameFile : public testing::Test {
 protected:
  [[nodiscard]] int rename(const std::string& source, const std::string& target) const {
    return CHelper::rename_file(dir_ / source, dir_ / target);
  }

  ScratchDirectory dir_;
};

TEST_F(RenameFile, ReplacesAnExistingTargetAndTheSourceIsGone) {
  write_file(dir_ / "source", "new");
  write_file(dir_ / "target", "old contents that are longer");
  EXPECT_EQ(rename("source", "target"), 0);
  EXPECT_EQ(read_file(dir_ / "target"), "new");
  EXPECT_EQ(names_in(dir_.path()), (string_list{"target"}));
}

TEST_F(RenameFile, GivesThePermissionsOfANewFile) {
  write_script(dir_ / "source", "");
  const ScopedUmask umask(007);
  EXPECT_EQ(rename("source", "target"), 0);
  EXPECT_EQ(mode_of(dir_ / "target"), 0660U);
}

TEST_F(RenameFile, WithoutASourceTheTargetIsStillRemoved) {
  write_file(dir_ / "target", "old");
  EXPECT_EQ(rename("source", "target"), -1);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_F(RenameFile, AFileMovedToItselfIsLost) {
  write_file(dir_ / "file", "contents");
  EXPECT_EQ(rename("file", "file"), -1);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_F(RenameFile, IfTheTargetCannotBeDeletedBothFilesStay) {
  write_file(dir_ / "source", "new");
  write_file(dir_ / "directory/file", "old");
  EXPECT_EQ(rename("source", "directory"), -1);
  EXPECT_EQ(names_in(dir_.path()), (string_list{"directory", "source"}));
  EXPECT_EQ(read_file(dir_ / "directory/file"), "old");
}

TEST_F(RenameFile, SucceedsEvenIfTheSourceCannotBeDeleted) {
  write_file(dir_ / "source", "new");
  const FileMount mount(dir_ / "source", dir_ / "source");
  if (!mount.mounted()) GTEST_SKIP() << kNoNamespaces;
  EXPECT_EQ(rename("source", "target"), 0);
  EXPECT_EQ(read_file(dir_ / "target"), "new");
  EXPECT_TRUE(exists(dir_ / "source"));
}

TEST_F(RenameFile, AReadErrorKeepsTheSourceAndLeavesNoPartialTarget) {
  write_file(dir_ / "source", std::string(200000, 'a'));
  {
    const ScopedFault fault(Fault::kReadFails, 150000);
    EXPECT_EQ(rename("source", "target"), -1);
  }
  EXPECT_EQ(names_in(dir_.path()), (string_list{"source"}));
  EXPECT_EQ(read_file(dir_ / "source").size(), 200000U);
}

TEST_F(RenameFile, ADirectoryIsNotMoved) {
  write_file(dir_ / "source/file", "kept");
  EXPECT_EQ(rename("source", "target"), -1);
  EXPECT_EQ(names_in(dir_.path()), (string_list{"source"}));
}

// Removing files and trees.

/// An overlay file system. Where the host supports it, the inode numbers of the lower file system's
/// files have the highest bit set.
class Overlay {
 public:
  Overlay(const std::string& lower, const std::string& upper, std::string mount_point)
      : mount_point_(std::move(mount_point)) {
    const std::string changes = upper + "/changes";
    const std::string work = upper + "/work";
    const std::string options =
        "xino=on,userxattr,lowerdir=" + lower + ",upperdir=" + changes + ",workdir=" + work;
    mounted_ = ::mkdir(changes.c_str(), 0755) == 0 && ::mkdir(work.c_str(), 0755) == 0 &&
               ::mount("norvak_test", mount_point_.c_str(), "overlay", 0, options.c_str()) == 0;
  }
  ~Overlay() {
    if (mounted_) (void)::umount2(mount_point_.c_str(), MNT_DETACH);
  }
  Overlay(const Overlay&) = delete;
  Overlay& operator=(const Overlay&) = delete;

  [[nodiscard]] bool mounted() const { return mounted_; }

 private:
  std::string mount_point_;
  bool mounted_ = false;
};

class RemoveFile : public testing::Test {
 protected:
  [[nodiscard]] int remove(const std::string& name) const {
    return CHelper::remove_file(dir_ / name);
  }

  void make_link(const std::string& target, const std::string& name) const {
    ASSERT_EQ(::symlink(target.c_str(), (dir_ / name).c_str()), 0);
  }

  void make_dated_2040(const std::string& name) const {
    constexpr timespec kTime = {std::int64_t{2208988800}, 0};
    constexpr std::array<timespec, 2> kTimes = {kTime, kTime};
    ASSERT_EQ(::utimensat(AT_FDCWD, (dir_ / name).c_str(), kTimes.data(), 0), 0);
    struct stat status = {};
    ASSERT_EQ(::stat((dir_ / name).c_str(), &status), 0);
    if (status.st_mtime != kTime.tv_sec)
      GTEST_SKIP() << "this host's file system has no times after 2038";
  }

  [[nodiscard]] std::uint64_t inode_of(const std::string& name) const {
    struct stat status = {};
    EXPECT_EQ(::stat((dir_ / name).c_str(), &status), 0);
    return status.st_ino;
  }

  void make_socket(const std::string& name) const {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = dir_ / name;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    const utility::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }

  ScratchDirectory dir_;
};

TEST_F(RemoveFile, AFileIsDeleted) {
  write_file(dir_ / "file", "");
  EXPECT_EQ(remove("file"), 0);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_F(RemoveFile, ATreeIsDeletedCompletely) {
  for (const char* const name : {"tree/a/b/c/file", "tree/a/file", "tree/d/.hidden", "tree/...",
                                 "tree/.d/..e/file", "tree/a b\n\"c'"})
    write_file(dir_ / name, "contents");
  ASSERT_EQ(::mkdir((dir_ / "tree/empty").c_str(), 0755), 0);
  write_file(dir_ / "beside", "kept");
  EXPECT_EQ(remove("tree"), 0);
  EXPECT_EQ(names_in(dir_.path()), (string_list{"beside"}));
}

TEST_F(RemoveFile, ATreeIsDeletedByTheWorkerToo) {
  write_file(dir_ / "tree/a/file", "contents");
  EXPECT_EQ(CHelper::_remove_dir(dir_ / "tree"), 0);
  EXPECT_EQ(CHelper::_remove_dir(dir_ / "tree"), -1);
  write_file(dir_ / "file", "");
  EXPECT_EQ(CHelper::_remove_dir(dir_ / "file"), -1);
  EXPECT_EQ(names_in(dir_.path()), (string_list{"file"}));
}

TEST_F(RemoveFile, AMissingPathFails) {
  EXPECT_EQ(remove("missing"), -1);
  EXPECT_EQ(remove("missing/file"), -1);
  make_link("missing", "dangling");
  EXPECT_EQ(remove("dangling"), -1) << "its target is missing";
  EXPECT_EQ(names_in(dir_.path()), (string_list{"dangling"}));
}

TEST_F(RemoveFile, ALinkToAFileIsDeletedAndNotTheFile) {
  write_file(dir_ / "file", "kept");
  make_link("file", "link");
  EXPECT_EQ(remove("link"), 0);
  EXPECT_EQ(names_in(dir_.path()), (string_list{"file"}));
}

TEST_F(RemoveFile, ALinkToADirectoryEmptiesItAndFails) {
  write_file(dir_ / "directory/sub/file", "");
  make_link("directory", "link");
  EXPECT_EQ(remove("link"), -1);
  EXPECT_EQ(names_in(dir_.path()), (string_list{"directory", "link"}));
  EXPECT_EQ(names_in(dir_ / "directory"), string_list());
}

TEST_F(RemoveFile, LinksInATreeAreDeletedAndNotFollowed) {
  write_file(dir_ / "outside/file", "kept");
  ASSERT_EQ(::mkdir((dir_ / "tree").c_str(), 0755), 0);
  make_link("../outside", "tree/to_directory");
  make_link("../outside/file", "tree/to_file");
  make_link("nothing", "tree/dangling");
  EXPECT_EQ(remove("tree"), 0);
  EXPECT_EQ(names_in(dir_.path()), (string_list{"outside"}));
  EXPECT_EQ(read_file(dir_ / "outside/file"), "kept");
}

TEST_F(RemoveFile, APipeInATreeIsDeleted) {
  ASSERT_EQ(::mkdir((dir_ / "tree").c_str(), 0755), 0);
  ASSERT_EQ(::mkfifo((dir_ / "tree/pipe").c_str(), 0644), 0);
  EXPECT_EQ(remove("tree"), 0);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_F(RemoveFile, ASocketInATreeEndsTheRemoval) {
  ASSERT_EQ(::mkdir((dir_ / "tree").c_str(), 0755), 0);
  make_socket("tree/socket");
  EXPECT_EQ(remove("tree"), -1) << "its type has the bit of a directory";
  EXPECT_EQ(names_in(dir_ / "tree"), (string_list{"socket"}));
  EXPECT_EQ(remove("tree/socket"), 0) << "named directly it is deleted";
}

TEST_F(RemoveFile, ABlockDeviceInATreeEndsTheRemoval) {
  ASSERT_EQ(::mkdir((dir_ / "tree").c_str(), 0755), 0);
  if (::mknod((dir_ / "tree/device").c_str(), S_IFBLK | 0600, ::makedev(7, 250)) != 0)
    GTEST_SKIP() << "this host does not allow device files";
  EXPECT_EQ(remove("tree"), -1) << "its type has the bit of a directory";
  EXPECT_EQ(names_in(dir_ / "tree"), (string_list{"device"}));
}

TEST_F(RemoveFile, EntriesWithoutATypeAreTreatedAsFiles) {
  write_file(dir_ / "tree/sub/file", "");
  write_file(dir_ / "flat/file", "");
  {
    const ScopedFault fault(Fault::kNoEntryTypes);
    EXPECT_EQ(remove("tree"), -1);
    EXPECT_EQ(remove("flat"), 0);
  }
  EXPECT_TRUE(exists(dir_ / "tree/sub/file"));
  EXPECT_EQ(remove("tree"), 0) << "with the types";
}

TEST_F(RemoveFile, FilesOver2GibAreDeleted) {
  for (const char* const name : {"file", "tree/file"}) {
    write_file(dir_ / name, "");
    grow_file(dir_ / name, kTwoGib);
  }
  EXPECT_EQ(remove("file"), 0);
  EXPECT_EQ(remove("tree"), 0);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_F(RemoveFile, ATreeFromAfter2038IsDeleted) {
  write_file(dir_ / "tree/sub/file", "");
  for (const char* const name : {"tree/sub/file", "tree/sub", "tree"}) make_dated_2040(name);
  if (IsSkipped()) return;
  EXPECT_EQ(remove("tree"), 0);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_F(RemoveFile, EntriesWithInodeNumbersOf64BitsAreDeleted) {
  for (const char* const name : {"lower", "upper", "merged"})
    ASSERT_EQ(::mkdir((dir_ / name).c_str(), 0755), 0);
  const SmallDisk lower(dir_ / "lower", kDiskBytes);
  const SmallDisk upper(dir_ / "upper", kDiskBytes);
  if (!lower.mounted() || !upper.mounted()) GTEST_SKIP() << kNoNamespaces;
  write_file(dir_ / "lower/tree/sub/file", "");
  write_file(dir_ / "lower/tree/file", "");
  const Overlay overlay(dir_ / "lower", dir_ / "upper", dir_ / "merged");
  if (!overlay.mounted() || inode_of("merged/tree/file") <= UINT32_MAX)
    GTEST_SKIP() << "this host has no inode numbers of more than 32 bits to offer";
  EXPECT_EQ(remove("merged/tree"), 0);
  EXPECT_EQ(names_in(dir_ / "merged"), string_list());
}

TEST_F(RemoveFile, AFailureEndsTheRemovalAndIsReported) {
  write_file(dir_ / "tree/sub/busy", "kept");
  const FileMount mount(dir_ / "tree/sub/busy", dir_ / "tree/sub/busy");
  if (!mount.mounted()) GTEST_SKIP() << kNoNamespaces;
  EXPECT_EQ(remove("tree"), -1);
  EXPECT_EQ(remove("tree/sub/busy"), -1);
  EXPECT_EQ(read_file(dir_ / "tree/sub/busy"), "kept");
}

TEST_F(RemoveFile, EntriesAfterAFailureAreLeftAlone) {
  for (int i = 0; i < 20; ++i) write_file(dir_ / ("tree/" + std::to_string(i)), "");
  string_list in_order;
  for (const auto& entry : std::filesystem::directory_iterator(dir_ / "tree"))
    in_order.push_back(entry.path().filename());
  const std::string busy = dir_ / ("tree/" + in_order[10]);
  const FileMount mount(busy, busy);
  if (!mount.mounted()) GTEST_SKIP() << kNoNamespaces;
  EXPECT_EQ(remove("tree"), -1);
  in_order.erase(in_order.begin(), in_order.begin() + 10);
  std::sort(in_order.begin(), in_order.end());
  EXPECT_EQ(names_in(dir_ / "tree"), in_order);
}

TEST_F(RemoveFile, ADirectoryThatCannotBeRemovedItselfIsEmptied) {
  write_file(dir_ / "disk/below", "");
  const SmallDisk disk(dir_ / "disk", kDiskBytes);
  if (!disk.mounted()) GTEST_SKIP() << kNoNamespaces;
  write_file(dir_ / "disk/sub/file", "");
  EXPECT_EQ(remove("disk"), -1);
  EXPECT_EQ(names_in(dir_ / "disk"), string_list());
}

TEST_F(RemoveFile, TheDeepestTreeThatAPathCanNameNeedsFewDescriptors) {
  constexpr std::size_t kLevels = 2000;
  const SmallDisk in_memory(dir_.path(), kManyEntriesBytes);  // for speed
  std::string path = dir_ / "tree";
  ASSERT_LT(path.size() + 2 * kLevels, std::size_t{PATH_MAX});
  ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
  for (std::size_t level = 1; level < kLevels; ++level) {
    path += "/d";
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
  }
  EXPECT_EQ(run_in_child([&] {
              constexpr rlimit kFewDescriptors = {32, 32};
              ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &kFewDescriptors), 0);
              EXPECT_EQ(remove("tree"), 0);
            }),
            0);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_F(RemoveFile, ALargeDirectoryIsDeletedCompletely) {
  const SmallDisk in_memory(dir_.path(), kManyEntriesBytes);  // for speed
  for (int i = 0; i < 2000; ++i) write_file(dir_ / ("tree/" + std::to_string(i)), "");
  EXPECT_EQ(remove("tree"), 0);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

}  // namespace
