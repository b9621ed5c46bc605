#include "agent_processes.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

constexpr int kAttempts = 20000;

/// Waits for @a condition, and checks it every millisecond.
/// @return false if it did not become true
template <typename Condition>
bool comes_true(Condition condition) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (condition()) return true;
    (void)::usleep(1000);
  }
  return false;
}

/// A process that already runs its program when the constructor returns. The destructor kills it.
class Child {
 public:
  Child(std::vector<std::string> command, const std::string& directory) {
    pid_ = ::fork();
    if (pid_ != 0) {
      EXPECT_TRUE(runs_its_program()) << command[0];
      return;
    }
    (void)::setpgid(0, 0);
    if (::chdir(directory.c_str()) != 0) ::_exit(1);
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& argument : command) arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    ::execv(arguments[0], arguments.data());
    ::_exit(1);
  }
  ~Child() {
    (void)::kill(-pid_, SIGKILL);
    (void)::kill(pid_, SIGKILL);
    (void)::waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  /// Waits for execv(), which replaces the arguments last.
  [[nodiscard]] bool runs_its_program() const {
    const std::string own = test_support::read_file("/proc/self/cmdline");
    return comes_true([&] {
      const std::string shown =
          test_support::read_file("/proc/" + std::to_string(pid_) + "/cmdline");
      return !shown.empty() && shown != own;
    });
  }

  pid_t pid_;
};

bool has(const std::vector<pid_t>& pids, pid_t pid) {
  return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

class AgentProcesses : public testing::Test {
 protected:
  AgentProcesses() {
    for (const char* const name : {"nginx", "tool", "runlog", "update_norvak_soft"}) {
      EXPECT_EQ(::mkdir((dir_ / name).c_str(), 0755), 0);
    }
  }

  /// A copy of `sleep`, the stand-in for any program.
  std::string program(const std::string& name) {
    std::ofstream(dir_ / name, std::ios::binary)
        << std::ifstream("/bin/sleep", std::ios::binary).rdbuf();
    (void)::chmod((dir_ / name).c_str(), 0755);
    return dir_ / name;
  }

  std::string script(const std::string& name) {
    std::ofstream(dir_ / name) << "while :; do sleep 1; done\n";
    (void)::chmod((dir_ / name).c_str(), 0755);
    return dir_ / name;
  }

  recover::InstallDirProcesses find() { return recover::find_processes(dir_.path()); }

  test_support::ScratchDirectory dir_;
};

TEST_F(AgentProcesses, AProgramOfTheInstallDirectoryIsTheAgent) {
  const Child agent({program("norvak_agent"), "100"}, "/");
  EXPECT_TRUE(has(find().agents, agent.pid()));
}

TEST_F(AgentProcesses, ADeletedProgramIsStillTheAgent) {
  const Child agent({program("norvak_agent"), "100"}, "/");
  EXPECT_TRUE(has(find().agents, agent.pid()));
  ASSERT_EQ(::unlink((dir_ / "norvak_agent").c_str()), 0);
  EXPECT_TRUE(has(find().agents, agent.pid()));
}

TEST_F(AgentProcesses, AScriptOfTheInstallDirectoryIsTheAgent) {
  const Child by_path({"/bin/sh", "-e", script("agent.sh")}, "/");
  const Child by_name({"/bin/sh", "./agent.sh"}, dir_.path());
  EXPECT_TRUE(has(find().agents, by_path.pid()));
  EXPECT_TRUE(has(find().agents, by_name.pid()));
}

TEST_F(AgentProcesses, OtherProgramsAreNotTheAgent) {
  const Child nginx({program("nginx/nginx"), "100"}, "/");
  const Child tool({program("tool/tar"), "100"}, "/");
  const Child updater({program("norvak_update"), "100"}, "/");
  const Child package({program("update_norvak_soft/update"), "100"}, "/");
  const Child reader({"/usr/bin/tail", "-f", script("runlog/update.log")}, dir_.path());
  const Child command({"/bin/sh", "-c", dir_ / "missing 2>&-; sleep 100"}, "/");
  const Child startup({"/bin/sh", script("startup.sh")}, "/");
  const Child agent({program("norvak_agent"), "100"}, "/");
  EXPECT_TRUE(has(find().agents, agent.pid()));
  EXPECT_TRUE(has(find().startup_scripts, startup.pid()));
  EXPECT_EQ(find().agents, std::vector<pid_t>{agent.pid()});
}

TEST_F(AgentProcesses, AnotherDirectoryWithTheSameBeginningIsAnother) {
  const std::string other = dir_.path() + "_old";
  ASSERT_EQ(::mkdir(other.c_str(), 0755), 0);
  ASSERT_EQ(::rename(program("norvak_agent").c_str(), (other + "/norvak_agent").c_str()), 0);
  {
    const Child agent({other + "/norvak_agent", "100"}, "/");
    EXPECT_TRUE(find().agents.empty());
  }
  (void)::unlink((other + "/norvak_agent").c_str());
  (void)::rmdir(other.c_str());
}

TEST_F(AgentProcesses, ALinkToTheInstallDirectoryLeadsToTheSameAgent) {
  const std::string link = dir_.path() + "_link";
  ASSERT_EQ(::symlink(dir_.path().c_str(), link.c_str()), 0);
  (void)program("norvak_agent");
  {
    const Child agent({link + "/norvak_agent", "100"}, "/");
    EXPECT_TRUE(has(find().agents, agent.pid()));
    EXPECT_TRUE(has(recover::find_processes(link).agents, agent.pid()));
  }
  (void)::unlink(link.c_str());
}

TEST_F(AgentProcesses, WhatIsBusyInAWorkDirectoryIsAWorker) {
  const std::string work_dir = dir_ / "update_norvak_soft";
  const Child inside({"/bin/sleep", "100"}, work_dir);
  const Child program_there({program("update_norvak_soft/update"), "100"}, "/");
  const Child script_there({"/bin/sh", script("update_norvak_soft/install.sh")}, "/");
  const Child reader({"/usr/bin/tail", "-f", script("update_norvak_soft/package")}, "/");
  for (const pid_t pid : {inside.pid(), program_there.pid(), script_there.pid(), reader.pid()}) {
    EXPECT_TRUE(comes_true([&] { return has(find().workers, pid); }));
  }
  EXPECT_TRUE(find().agents.empty());
}

TEST_F(AgentProcesses, AnAgentThatWasStartedInAWorkDirectoryIsNoWorker) {
  const std::string work_dir = dir_ / "update_norvak_soft";
  const Child agent({program("norvak_agent"), "100"}, work_dir);
  EXPECT_TRUE(has(find().agents, agent.pid()));
  EXPECT_FALSE(has(find().workers, agent.pid()));
}

TEST_F(AgentProcesses, AProcessMayBeTheAgentIfAnythingSpeaksForIt) {
  const Child stranger({"/bin/sleep", "100"}, "/");
  const Child inside({"/bin/sleep", "100"}, dir_.path());
  const Child named({"/usr/bin/tail", "-f", script("log")}, "/");
  EXPECT_FALSE(recover::may_be_agent(stranger.pid(), dir_.path()));
  EXPECT_TRUE(recover::may_be_agent(inside.pid(), dir_.path()));
  EXPECT_TRUE(recover::may_be_agent(named.pid(), dir_.path()));
}

}  // namespace
