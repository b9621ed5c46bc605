#include "log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <map>
#include <sstream>
#include <string>

#include "test_support.h"
#include "utility/file.h"
#include "utility/string_list.h"

namespace {

using test_support::end_of;
using test_support::grow_file;
using test_support::Interruptions;
using test_support::kTwoGib;
using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::run_in_child;
using test_support::ScopedUmask;
using test_support::ScopedVariable;
using test_support::SmallDisk;
using test_support::write_file;
using test_support::write_install_path;

constexpr char kMessageBegin[] = "]\t\t";
constexpr std::size_t kLongestMessage = 2047;

class UpdateLog : public test_support::AgentTest {
 protected:
  [[nodiscard]] std::string log_path() const { return agent("runlog/update.log"); }
  [[nodiscard]] std::string log() const { return read_file(log_path()); }

  /// The log without the time stamps.
  [[nodiscard]] std::string log_without_times() const {
    std::string text;
    std::istringstream lines(log());
    for (std::string line; std::getline(lines, line);) text += line.erase(0, line.find(']')) + "\n";
    return text;
  }
};

TEST_F(UpdateLog, ALineIsTimeStampTwoTabsAndMessage) {
  const ScopedVariable zone("TZ", "NPT-05:45");  // 5:45 hours east of Greenwich
  constexpr std::time_t kEast = std::time_t{5 * 60 + 45} * 60;
  const std::time_t before = std::time(nullptr);
  CUpdateLog::write_log("message");
  const std::time_t after = std::time(nullptr);

  string_list candidates;
  for (std::time_t time = before; time <= after; ++time) {
    const std::time_t shifted = time + kEast;
    std::array<char, 64> line{};
    std::tm parts = {};
    ASSERT_NE(::gmtime_r(&shifted, &parts), nullptr);
    ASSERT_GT(std::strftime(line.data(), line.size(), "[%Y-%m-%d %H:%M:%S]\t\tmessage\n", &parts),
              0U);
    candidates.emplace_back(line.data());
  }
  EXPECT_EQ(std::count(candidates.begin(), candidates.end(), log()), 1) << log();
}

TEST_F(UpdateLog, LinesAreAppended) {
  write_file(log_path(), "[old]\t\tline\n");
  CUpdateLog::write_log("first");
  CUpdateLog::write_log("second");
  EXPECT_EQ(log_without_times(), "]\t\tline\n]\t\tfirst\n]\t\tsecond\n");
}

TEST_F(UpdateLog, ALogOver2GibIsAppendedTo) {
  write_file(log_path(), "");
  grow_file(log_path(), kTwoGib);
  CUpdateLog::write_log("message");
  CUpdateLog::write_space();
  EXPECT_EQ(end_of(log_path(), 12), "]\t\tmessage\n\n");
}

TEST_F(UpdateLog, AnEmptyLineSeparatesRuns) {
  CUpdateLog::write_log("end of a run");
  CUpdateLog::write_space();
  CUpdateLog::write_log("next run");
  CUpdateLog::write_space();
  EXPECT_EQ(log_messages(), (string_list{"end of a run", "", "next run", ""}));
}

TEST_F(UpdateLog, TheSeparatorIsOneLineFeed) {
  CUpdateLog::write_space();
  EXPECT_EQ(log(), "\n");
}

TEST_F(UpdateLog, TheArgumentsAreExpandedInTheFormat) {
  CUpdateLog::write_log("%s failed[%d] at 100%%", "transfer", -7);
  EXPECT_EQ(log_messages(), (string_list{"transfer failed[-7] at 100%"}));
}

TEST_F(UpdateLog, PercentSignsInArgumentsHaveNoMeaning) {
  CUpdateLog::write_log("host %s", "%s%n%d%%");
  EXPECT_EQ(log_messages(), (string_list{"host %s%n%d%%"}));
}

TEST_F(UpdateLog, AMessageIsTruncatedAfter2047Characters) {
  for (const std::size_t length : {2046U, 2047U, 2048U, 2049U, 3000U, 100000U}) {
    (void)::unlink(log_path().c_str());
    std::string message(length, 'a');
    message[std::min(length, kLongestMessage) - 1] = 'z';
    CUpdateLog::write_log("%s", message.c_str());
    EXPECT_EQ(log_without_times(), kMessageBegin + message.substr(0, kLongestMessage) + "\n")
        << length;
  }
}

TEST_F(UpdateLog, AnEmptyMessageIsALineToo) {
  CUpdateLog::write_log("%s", "");
  EXPECT_EQ(log_without_times(), "]\t\t\n");
}

TEST_F(UpdateLog, WithoutItsDirectoryTheLinesAreLost) {
  ASSERT_EQ(::rmdir(agent("runlog").c_str()), 0);
  CUpdateLog::write_log("lost");
  CUpdateLog::write_space();
  EXPECT_EQ(names_in(install_path()), string_list());
}

TEST_F(UpdateLog, IfItCannotBeWrittenTheLinesAreLost) {
  ASSERT_EQ(::mkdir(log_path().c_str(), 0755), 0);
  CUpdateLog::write_log("lost");
  CUpdateLog::write_space();
  EXPECT_EQ(names_in(log_path()), string_list());
}

TEST_F(UpdateLog, OnAFullDiskTheLinesAreLost) {
  const SmallDisk disk(agent("runlog"), 4096);
  ASSERT_TRUE(disk.mounted());
  write_file(log_path(), std::string(4096, 'a'));
  CUpdateLog::write_log("lost");
  CUpdateLog::write_space();
  EXPECT_EQ(log(), std::string(4096, 'a'));
}

TEST_F(UpdateLog, ANewLogHasThePermissionsOfANewFile) {
  {
    const ScopedUmask umask(0);
    CUpdateLog::write_log("message");
  }
  EXPECT_EQ(mode_of(log_path()), 0666U);
  ASSERT_EQ(::unlink(log_path().c_str()), 0);
  const ScopedUmask umask(007);
  CUpdateLog::write_space();
  EXPECT_EQ(mode_of(log_path()), 0660U);
}

TEST_F(UpdateLog, TheFileIsOpenedForEachLine) {
  CUpdateLog::write_log("first");
  ASSERT_EQ(::rename(log_path().c_str(), agent("runlog/update.log.1").c_str()), 0);
  CUpdateLog::write_log("second");
  EXPECT_EQ(log_without_times(), "]\t\tsecond\n");
}

TEST_F(UpdateLog, TheInstallDirectoryIsReadForEachLine) {
  CUpdateLog::write_log("first");
  ASSERT_EQ(::mkdir(agent("other").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(agent("other/runlog").c_str(), 0755), 0);
  write_install_path(agent("other") + "\n");
  CUpdateLog::write_log("second");
  CUpdateLog::write_space();
  EXPECT_EQ(log_messages(), (string_list{"first"}));
  EXPECT_EQ(read_file(agent("other/runlog/update.log")).substr(21), "\t\tsecond\n\n");
}

TEST_F(UpdateLog, WithoutAnInstallDirectoryTheDefaultOneIsUsed) {
  const SmallDisk disk("/usr/local", std::size_t{1024} * 1024);
  ASSERT_TRUE(disk.mounted());
  ASSERT_EQ(::mkdir("/usr/local/norvak_agent", 0755), 0);
  ASSERT_EQ(::mkdir("/usr/local/norvak_agent/runlog", 0755), 0);
  ASSERT_EQ(::unlink(test_support::kInstallPathFile), 0);
  CUpdateLog::write_log("message");
  EXPECT_EQ(read_file("/usr/local/norvak_agent/runlog/update.log").substr(21), "\t\tmessage\n");
}

TEST_F(UpdateLog, NoFileStaysOpen) {
  const utility::Descriptor before(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  CUpdateLog::write_log("message");
  CUpdateLog::write_space();
  const utility::Descriptor after(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(after.get(), before.get() + 1);
}

// Several processes.

constexpr int kPatienceMilliseconds = 20000;

/// A writer in a child process, which closes a pipe when it is done.
class Writer {
 public:
  template <typename Body>
  explicit Writer(Body body) {
    std::array<int, 2> ends = {-1, -1};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    done_ = ends[0];
    child_ = ::fork();
    if (child_ == 0) {
      (void)::alarm(45);
      body();
      ::_exit(0);
    }
    (void)::close(ends[1]);
  }

  ~Writer() {
    (void)::close(done_);
    (void)::waitpid(child_, nullptr, 0);
  }

  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  [[nodiscard]] bool is_done_within(int milliseconds) const {
    pollfd end = {done_, POLLIN, 0};
    return ::poll(&end, 1, milliseconds) == 1;
  }

 private:
  int done_ = -1;
  pid_t child_ = -1;
};

TEST_F(UpdateLog, FiftyProcessesKeepEveryLineWhole) {
  constexpr int kProcesses = 50;
  constexpr int kLines = 20;
  EXPECT_EQ(run_in_child([] {
              for (int process = 0; process < kProcesses; ++process) {
                const pid_t child = ::fork();
                ASSERT_GE(child, 0);
                if (child != 0) continue;
                const std::string filler(static_cast<std::size_t>(1000 + process), 'x');
                for (int line = 0; line < kLines; ++line)
                  CUpdateLog::write_log("%d %d %s", process, line, filler.c_str());
                CUpdateLog::write_space();
                ::_exit(0);
              }
              for (int process = 0; process < kProcesses; ++process) {
                int status = -1;
                ASSERT_GT(::wait(&status), 0);
                EXPECT_EQ(status, 0);
              }
            }),
            0);

  std::map<int, int> next_line;
  int separators = 0;
  for (const std::string& message : log_messages()) {
    if (message.empty()) {
      ++separators;
      continue;
    }
    std::istringstream parts(message);
    int process = -1;
    int line = -1;
    std::string filler;
    parts >> process >> line >> filler;
    EXPECT_EQ(line, next_line[process]++) << "out of order";
    EXPECT_EQ(filler, std::string(static_cast<std::size_t>(1000 + process), 'x'));
  }
  EXPECT_EQ(separators, kProcesses);
  EXPECT_EQ(next_line.size(), std::size_t{kProcesses});
  for (const auto& [process, lines] : next_line) EXPECT_EQ(lines, kLines) << process;
}

// A request for an exclusive lock waits for a shared one too.
TEST_F(UpdateLog, OnlyTheSeparatorWaitsForAnExclusiveLock) {
  const utility::Descriptor file(::open(log_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_EQ(::flock(file.get(), LOCK_SH), 0);
  const Writer message([] { CUpdateLog::write_log("message"); });
  EXPECT_TRUE(message.is_done_within(kPatienceMilliseconds));

  const Writer separator([] { CUpdateLog::write_space(); });
  EXPECT_FALSE(separator.is_done_within(100));
  EXPECT_EQ(log_messages(), (string_list{"message"}));
  ASSERT_EQ(::flock(file.get(), LOCK_UN), 0);
  EXPECT_TRUE(separator.is_done_within(kPatienceMilliseconds));
  EXPECT_EQ(log_messages(), (string_list{"message", ""}));
}

TEST_F(UpdateLog, AnInterruptedSeparatorKeepsWaiting) {
  const utility::Descriptor file(::open(log_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_EQ(::flock(file.get(), LOCK_EX), 0);
  const Writer separator([] {
    const Interruptions interruptions;
    CUpdateLog::write_space();
  });
  EXPECT_FALSE(separator.is_done_within(100));
  EXPECT_EQ(log_messages(), string_list());
  ASSERT_EQ(::flock(file.get(), LOCK_UN), 0);
  EXPECT_TRUE(separator.is_done_within(kPatienceMilliseconds));
  EXPECT_EQ(log_messages(), (string_list{""}));
}

TEST_F(UpdateLog, TheSeparatorLeavesNoLock) {
  CUpdateLog::write_space();
  const utility::Descriptor file(::open(log_path().c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(::flock(file.get(), LOCK_EX | LOCK_NB), 0);
}

}  // namespace
