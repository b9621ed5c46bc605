#include "test_support.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace test_support {

namespace {

namespace fs = std::filesystem;

bool private_namespace = false;

bool write_once(const char* path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  out.close();
  return !out.fail();
}

/// Becomes root of a new user namespace, which may mount what it likes in it.
bool become_namespace_root() {
  const std::string user = std::to_string(::geteuid());
  const std::string group = std::to_string(::getegid());
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  return write_once("/proc/self/setgroups", "deny") &&
         write_once("/proc/self/uid_map", "0 " + user + " 1") &&
         write_once("/proc/self/gid_map", "0 " + group + " 1");
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

void write_file(const std::string& path, const std::string& contents) {
  std::error_code ignored;
  fs::create_directories(fs::path(path).parent_path(), ignored);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
  out.close();
  ASSERT_FALSE(out.fail()) << path;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.is_open()) << path;
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
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
  static const std::regex line_format(R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\]\t\t([^\n]*))");
  std::vector<std::string> messages;
  if (!exists(agent("runlog/update.log"))) return messages;
  std::istringstream lines(read_file(agent("runlog/update.log")));
  for (std::string line; std::getline(lines, line);) {
    std::smatch parts;
    if (line.empty()) {
      messages.emplace_back();
    } else if (std::regex_match(line, parts, line_format)) {
      messages.push_back(parts[1]);
    } else {
      ADD_FAILURE() << "not a log line: " << line;
    }
  }
  return messages;
}

void write_install_path(const std::string& text) { write_file(kInstallPathFile, text); }

}  // namespace test_support
