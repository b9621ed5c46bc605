#include "test_support.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

namespace test_support {

namespace {

namespace fs = std::filesystem;

constexpr unsigned kLongestChildSeconds = 45;
constexpr int kNotSetUp = 100;  // exit code of a child whose namespace was not set up

bool private_namespace = false;
volatile std::sig_atomic_t interruptions = 0;

void count_interruption(int /*signal*/) { interruptions = interruptions + 1; }

bool write_once(const char* path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  out.close();
  return !out.fail();
}

/// Becomes root in a new user namespace and may then mount file systems.
bool become_namespace_root() {
  const std::string user = std::to_string(::geteuid());
  const std::string group = std::to_string(::getegid());
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  return write_once("/proc/self/setgroups", "deny") &&
         write_once("/proc/self/uid_map", "0 " + user + " 1") &&
         write_once("/proc/self/gid_map", "0 " + group + " 1");
}

[[noreturn]] void run_and_exit(const std::function<void()>& body) {
  (void)::alarm(kLongestChildSeconds);
  body();
  (void)std::fflush(nullptr);
  ::_exit(testing::Test::HasFailure() ? 1 : 0);
}

/// The message of a line of the update log; nothing if the line does not begin with a time stamp in
/// brackets and two tabs.
std::optional<std::string> message_of(const std::string& line) {
  constexpr std::string_view kShape = "[0000-00-00 00:00:00]\t\t";
  const auto fits = [](char shape, char c) {
    return shape == '0' ? std::isdigit(static_cast<unsigned char>(c)) != 0 : c == shape;
  };
  if (line.size() < kShape.size() || !std::equal(kShape.begin(), kShape.end(), line.begin(), fits))
    return std::nullopt;
  return line.substr(kShape.size());
}

pid_t fork_child(const std::function<void()>& body) {
  (void)std::fflush(nullptr);  // or the child would print it again
  const pid_t child = ::fork();
  if (child == 0) run_and_exit(body);
  return child;
}

int wait_for(pid_t child) {
  int status = -1;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

/// The first process of a PID namespace, whose end kills all others in it. Waits for the one that
/// runs @a body and reports its wait status.
[[noreturn]] void run_as_first_process(const std::function<void()>& body, int report) {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getpid() != 1) ::_exit(kNotSetUp);
  const pid_t child = fork_child([&] {
    if (::setsid() < 0) ::_exit(kNotSetUp);
    body();
  });
  int status = 0;
  pid_t ended = 0;
  while (ended != child) ended = ::wait(&status);
  ::_exit(::write(report, &status, sizeof status) == sizeof status ? 0 : kNotSetUp);
}

}  // namespace

bool enter_private_namespace() {
  if (::geteuid() == 0 ? ::unshare(CLONE_NEWNS) != 0 : !become_namespace_root()) return false;
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  if (::mount("norvak_test", "/var/log", "tmpfs", 0, nullptr) != 0) return false;
  private_namespace = true;
  return true;
}

bool in_private_namespace() { return private_namespace; }

int run_in_child(const std::function<void()>& body) { return wait_for(fork_child(body)); }

std::optional<int> run_in_pid_namespace(const std::function<void()>& body) {
  std::array<int, 2> report = {};
  if (!private_namespace || ::pipe(report.data()) != 0) return std::nullopt;
  const int status = run_in_child([&] {
    if (::setsid() < 0 || ::unshare(CLONE_NEWPID) != 0) ::_exit(kNotSetUp);
    const pid_t first = ::fork();
    if (first == 0) run_as_first_process(body, report[1]);
    if (first < 0 || wait_for(first) != 0) ::_exit(kNotSetUp);
  });
  int result = 0;
  const bool reported = status == 0 && ::read(report[0], &result, sizeof result) == sizeof result;
  for (const int end : report) (void)::close(end);
  return reported ? std::optional<int>(result) : std::nullopt;
}

IdleProcess::IdleProcess(Group group)
    : pid_(fork_child([group] {
        if (group == Group::kOfItsOwn) (void)::setsid();
        for (;;) (void)::pause();  // until the alarm, at the latest
      })) {
  if (pid_ < 0) throw std::runtime_error("no child process");
}

IdleProcess::~IdleProcess() {
  if (pid_ == 0) return;
  (void)::kill(pid_, SIGKILL);
  (void)wait_for(pid_);
}

int IdleProcess::wait_for_signal() {
  using std::chrono::milliseconds;
  int status = 0;
  for (milliseconds waited(0); waited < milliseconds(20000); waited += milliseconds(1)) {
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = 0;
      return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    std::this_thread::sleep_for(milliseconds(1));
  }
  return 0;
}

Interruptions::Interruptions() {
  interruptions = 0;
  struct sigaction action = {};  // without SA_RESTART
  action.sa_handler = count_interruption;
  (void)::sigaction(SIGALRM, &action, nullptr);
  constexpr itimerval kEveryMillisecond = {{0, 1000}, {0, 1000}};
  (void)::setitimer(ITIMER_REAL, &kEveryMillisecond, nullptr);
}

Interruptions::~Interruptions() {
  constexpr itimerval kNever = {};
  (void)::setitimer(ITIMER_REAL, &kNever, nullptr);
  (void)std::signal(SIGALRM, SIG_DFL);
}

int Interruptions::count() { return interruptions; }

ScopedVariable::ScopedVariable(const char* name, const char* value) : name_(name) {
  if (const char* const old_value = std::getenv(name)) old_value_ = old_value;
  (void)(value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name));
}

ScopedVariable::~ScopedVariable() {
  (void)(old_value_ ? ::setenv(name_.c_str(), old_value_->c_str(), 1) : ::unsetenv(name_.c_str()));
}

ScratchDirectory::ScratchDirectory() {
  std::string name = (fs::temp_directory_path() / "norvak-unit-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no scratch directory");
  path_ = name;
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

SmallDisk::SmallDisk(std::string mount_point, std::size_t bytes)
    : mount_point_(std::move(mount_point)),
      mounted_(private_namespace && ::mount("norvak_test", mount_point_.c_str(), "tmpfs", 0,
                                            ("size=" + std::to_string(bytes)).c_str()) == 0) {}

SmallDisk::~SmallDisk() {
  if (mounted_) (void)::umount2(mount_point_.c_str(), MNT_DETACH);
}

FileMount::FileMount(const std::string& file, std::string mount_point)
    : mount_point_(std::move(mount_point)),
      mounted_(private_namespace &&
               ::mount(file.c_str(), mount_point_.c_str(), nullptr, MS_BIND, nullptr) == 0) {}

FileMount::~FileMount() {
  if (mounted_) (void)::umount2(mount_point_.c_str(), MNT_DETACH);
}

void write_file(const std::string& path, const std::string& contents) {
  std::error_code ignored;
  fs::create_directories(fs::path(path).parent_path(), ignored);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
  out.close();
  ASSERT_FALSE(out.fail()) << path;
}

void write_script(const std::string& path, const std::string& commands) {
  write_file(path, "#!/bin/sh\n" + commands);
  ASSERT_EQ(::chmod(path.c_str(), 0755), 0) << path;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.is_open()) << path;
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

std::string end_of(const std::string& path, std::size_t bytes) {
  std::ifstream in(path, std::ios::binary);
  std::string end(bytes, '\0');
  in.seekg(-static_cast<std::streamoff>(bytes), std::ios::end);
  in.read(end.data(), static_cast<std::streamsize>(bytes));
  EXPECT_FALSE(in.fail()) << path;
  return end;
}

void grow_file(const std::string& path, off_t size) {
  ASSERT_EQ(::truncate(path.c_str(), size), 0) << path;
}

off_t size_of(const std::string& path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

mode_t mode_of(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

std::vector<std::string> names_in(const std::string& path) {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void AgentTest::SetUp() {
  if (!in_private_namespace()) GTEST_SKIP() << "this host does not allow private mount namespaces";
  ASSERT_EQ(::mkdir(agent("runlog").c_str(), 0755), 0);
  write_install_path(install_path() + "\n");
}

std::vector<std::string> AgentTest::log_messages() const {
  std::vector<std::string> messages;
  if (!exists(agent("runlog/update.log"))) return messages;
  std::istringstream lines(read_file(agent("runlog/update.log")));
  for (std::string line; std::getline(lines, line);) {
    // The empty line between two runs is the only one without a time stamp.
    const std::optional<std::string> message = line.empty() ? line : message_of(line);
    if (message) {
      messages.push_back(*message);
    } else {
      ADD_FAILURE() << "not a log line: " << line;
    }
  }
  return messages;
}

void write_install_path(const std::string& text) { write_file(kInstallPathFile, text); }

}  // namespace test_support
