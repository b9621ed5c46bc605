// What the unit tests share: private namespaces, child processes, scratch directories, small file
// helpers.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

/// Moves this process into a mount namespace of its own, in which /var/log is empty and writable
/// and nothing that is mounted shows outside. Without root rights it moves into a user namespace
/// as well. Must be called before there are threads.
/// @return false where the host does not allow it
bool enter_private_namespace();

/// Whether enter_private_namespace was called and succeeded.
bool in_private_namespace();

/// Runs @a body in a child process, which is ended after 20 seconds. Expectations that fail in it
/// are printed and make its exit code 1.
/// @return the wait status of the child: 0 when all expectations held
int run_in_child(const std::function<void()>& body);

/// The same in a PID namespace, a session and a process group of its own, so that no signal that
/// @a body sends leaves them; what @a body started ends with it. Needs the private namespace.
/// @return the wait status of the child; nothing where the host does not allow it
std::optional<int> run_in_pid_namespace(const std::function<void()>& body);

/// A child process that does nothing until it is killed, at the latest by the destructor.
class IdleProcess {
 public:
  enum class Group { kOfItsOwn, kOfTheCaller };

  explicit IdleProcess(Group group = Group::kOfItsOwn);
  ~IdleProcess();
  IdleProcess(const IdleProcess&) = delete;
  IdleProcess& operator=(const IdleProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }

  /// Waits at most 5 seconds for the end of the process.
  /// @return the signal that ended it; 0 when none did
  int wait_for_signal();

 private:
  pid_t pid_;
};

/// A signal every millisecond, which interrupts the system calls of this process.
class Interruptions {
 public:
  Interruptions();
  ~Interruptions();
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

  /// How many signals have come so far.
  [[nodiscard]] static int count();
};

/// A value of an environment variable, until the old one is restored.
class ScopedVariable {
 public:
  /// @param value  null removes the variable
  ScopedVariable(const char* name, const char* value);
  ~ScopedVariable();
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  std::string name_;
  std::optional<std::string> old_value_;
};

/// A directory of its own below the system's temporary directory, removed with all it holds.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

  /// Path of @a name, a relative path, in the directory.
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// A small file system of @a bytes in memory, mounted over a directory. Needs the private
/// namespace.
class SmallDisk {
 public:
  SmallDisk(std::string mount_point, std::size_t bytes);
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  [[nodiscard]] bool mounted() const { return mounted_; }

 private:
  std::string mount_point_;
  bool mounted_;
};

/// The umask of this process, until the old one is restored.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : old_mask_(::umask(mask)) {}
  ~ScopedUmask() { (void)::umask(old_mask_); }
  ScopedUmask(const ScopedUmask&) = delete;
  ScopedUmask& operator=(const ScopedUmask&) = delete;

 private:
  mode_t old_mask_;
};

/// A file mounted over another one, which cannot be deleted or replaced meanwhile. Needs the
/// private namespace.
class FileMount {
 public:
  /// Both files exist, and may be the same.
  FileMount(const std::string& file, std::string mount_point);
  ~FileMount();
  FileMount(const FileMount&) = delete;
  FileMount& operator=(const FileMount&) = delete;

  [[nodiscard]] bool mounted() const { return mounted_; }

 private:
  std::string mount_point_;
  bool mounted_;
};

/// Replaces the contents of @a path, making the directories above it.
void write_file(const std::string& path, const std::string& contents);

/// Writes a shell script that can be executed.
void write_script(const std::string& path, const std::string& commands);

/// The contents of @a path; fails the test when it cannot be read.
std::string read_file(const std::string& path);

/// The last @a bytes of @a path, which is at least so long.
std::string end_of(const std::string& path, std::size_t bytes);

/// Lengthens a file to @a size bytes. What is added takes no disk space.
void grow_file(const std::string& path, off_t size);

/// The smallest size of a file that 32 bits with a sign cannot hold.
inline constexpr off_t kTwoGib = off_t{1} << 31;

/// The size of @a path in bytes, -1 where nothing is.
off_t size_of(const std::string& path);

bool exists(const std::string& path);

/// The permission bits of @a path.
mode_t mode_of(const std::string& path);

/// The names in a directory, sorted.
std::vector<std::string> names_in(const std::string& path);

/// A test that works on the files of an agent: /var/log/version_control names a scratch directory.
/// Skipped where the host does not allow private namespaces.
class AgentTest : public testing::Test {
 protected:
  void SetUp() override;

  /// Path of @a name, a relative path, in the install directory.
  [[nodiscard]] std::string agent(const std::string& name) const { return install_ / name; }

  [[nodiscard]] const std::string& install_path() const { return install_.path(); }

  /// The messages in the update log, without their time stamps. A line that is not well-formed
  /// fails the test.
  [[nodiscard]] std::vector<std::string> log_messages() const;

 private:
  ScratchDirectory install_;
};

/// Names the install directory in /var/log/version_control, as it stands.
void write_install_path(const std::string& text);

inline constexpr char kInstallPathFile[] = "/var/log/version_control";

}  // namespace test_support
