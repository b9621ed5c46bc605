// Shared by the unit tests: private namespaces, child processes, scratch directories, file helpers.
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

/// Moves this process into its own mount namespace, where /var/log is empty and writable and mounts
/// are not visible outside. Without root rights it enters a user namespace as well. Must be called
/// before threads are started.
/// @return false if the host does not allow it
bool enter_private_namespace();

/// Whether enter_private_namespace was called and succeeded.
bool in_private_namespace();

/// Runs @a body in a child process, which is killed after 45 seconds. Failed expectations are
/// printed and make its exit code 1.
/// @return the wait status of the child: 0 if all expectations held
int run_in_child(const std::function<void()>& body);

/// The same in its own PID namespace, session and process group, which confine the signals that
/// @a body sends. Processes that @a body starts end with it. Needs the private namespace.
/// @return the wait status of the child; nothing if the host does not allow it
std::optional<int> run_in_pid_namespace(const std::function<void()>& body);

/// A child process that does nothing until it is killed, by the destructor at the latest.
class IdleProcess {
 public:
  enum class Group { kOfItsOwn, kOfTheCaller };

  explicit IdleProcess(Group group = Group::kOfItsOwn);
  ~IdleProcess();
  IdleProcess(const IdleProcess&) = delete;
  IdleProcess& operator=(const IdleProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }

  /// Waits at most 20 seconds for the end of the process.
  /// @return the signal that ended it; 0 if none did
  int wait_for_signal();

 private:
  pid_t pid_;
};

/// Interrupts the system calls of this process with a signal every millisecond.
class Interruptions {
 public:
  Interruptions();
  ~Interruptions();
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

  /// The number of signals so far.
  [[nodiscard]] static int count();
};

/// Sets an environment variable; the destructor restores the old value.
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

/// A new directory below the system's temporary directory; the destructor removes it recursively.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

  /// The path of @a name, which is relative to the directory.
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// A file system in memory of @a bytes, mounted over a directory. Needs the private namespace.
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

/// Sets the umask of this process; the destructor restores the old one.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : old_mask_(::umask(mask)) {}
  ~ScopedUmask() { (void)::umask(old_mask_); }
  ScopedUmask(const ScopedUmask&) = delete;
  ScopedUmask& operator=(const ScopedUmask&) = delete;

 private:
  mode_t old_mask_;
};

/// Mounts a file over another one, which cannot be deleted or replaced while the object exists.
/// Needs the private namespace.
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

/// Replaces the contents of @a path, creating the directories above it.
void write_file(const std::string& path, const std::string& contents);

/// Writes an executable shell script.
void write_script(const std::string& path, const std::string& commands);

/// The contents of @a path; the test fails if it cannot be read.
std::string read_file(const std::string& path);

/// The last @a bytes of @a path, which must be at least that long.
std::string end_of(const std::string& path, std::size_t bytes);

/// Extends a file to @a size bytes with a hole, which takes no disk space.
void grow_file(const std::string& path, off_t size);

/// The smallest file size that does not fit into a signed 32-bit number.
inline constexpr off_t kTwoGib = off_t{1} << 31;

/// The size of @a path in bytes; -1 if it does not exist.
off_t size_of(const std::string& path);

bool exists(const std::string& path);

/// The permission bits of @a path.
mode_t mode_of(const std::string& path);

/// The names in a directory, sorted.
std::vector<std::string> names_in(const std::string& path);

/// A test on the files of an agent: /var/log/version_control names a scratch directory. Skipped if
/// the host does not allow private namespaces.
class AgentTest : public testing::Test {
 protected:
  void SetUp() override;

  /// The path of @a name, which is relative to the install directory.
  [[nodiscard]] std::string agent(const std::string& name) const { return install_ / name; }

  [[nodiscard]] const std::string& install_path() const { return install_.path(); }

  /// The messages in the update log, without their time stamps. A malformed line fails the test.
  [[nodiscard]] std::vector<std::string> log_messages() const;

 private:
  ScratchDirectory install_;
};

/// Writes @a text to /var/log/version_control, unchanged.
void write_install_path(const std::string& text);

inline constexpr char kInstallPathFile[] = "/var/log/version_control";

/// Names the cases of a table by their member `name`.
inline constexpr auto case_name = [](const auto& table_case) {
  return std::string(table_case.param.name);
};

}  // namespace test_support
