#include "agent_package_reader.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

#include "agent_package.h"
#include "utility/file.h"
#include "xml/config.h"

namespace publish {

namespace {

constexpr std::size_t kReadBytes = std::size_t{128} * 1024;
/// Two blocks of zero bytes end an archive.
constexpr std::size_t kEndBytes = 1024;
/// Enough of the script for its first line and its version.
constexpr std::size_t kMostScriptBytes = std::size_t{64} * 1024;
constexpr std::size_t kMostConfigBytes = std::size_t{16} * 1024 * 1024;
/// Limit of the lists in AgentPackage, whatever a package contains.
constexpr std::size_t kMostNamed = 20;
constexpr char kConfig[] = "config.xml";

struct ArchiveFree {
  void operator()(archive* archive) const noexcept { (void)archive_read_free(archive); }
};
using ArchivePtr = std::unique_ptr<archive, ArchiveFree>;

/// Whether the path @a target leaves the package at any point if it is followed from a directory
/// @a depth levels below the package's top.
bool leaves(std::string_view target, std::size_t depth) {
  while (!target.empty()) {
    const std::size_t end = std::min(target.find('/'), target.size());
    const std::string_view part = target.substr(0, end);
    target.remove_prefix(std::min(end + 1, target.size()));
    if (part.empty() || part == ".") continue;
    if (part != "..") {
      ++depth;
    } else if (depth-- == 0) {
      return true;
    }
  }
  return false;
}

bool is_absolute(std::string_view path) { return !path.empty() && path.front() == '/'; }

bool has_parent_step(std::string_view path) {
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    if (path.substr(0, end) == "..") return true;
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return false;
}

/// The number of directories above the last part of @a path, which has no parent steps.
std::size_t directory_depth(std::string_view path) {
  std::size_t parts = 0;
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    const std::string_view part = path.substr(0, end);
    if (!part.empty() && part != ".") ++parts;
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return parts == 0 ? 0 : parts - 1;
}

std::string text_or_empty(const char* text) { return text == nullptr ? "" : text; }

/// Extended headers hold UTF-8, which the locale of this process may not be able to express.
std::string text_or_utf8(const char* text, const char* utf8) {
  return text_or_empty(text == nullptr ? utf8 : text);
}

std::string path_of(archive_entry* entry) {
  return text_or_utf8(archive_entry_pathname(entry), archive_entry_pathname_utf8(entry));
}

std::string hard_link_of(archive_entry* entry) {
  return text_or_utf8(archive_entry_hardlink(entry), archive_entry_hardlink_utf8(entry));
}

std::string symbolic_link_of(archive_entry* entry) {
  return text_or_utf8(archive_entry_symlink(entry), archive_entry_symlink_utf8(entry));
}

/// A file in memory.
class MemoryFile {
 public:
  MemoryFile() : file_(::memfd_create("config.xml", MFD_CLOEXEC)) {}

  [[nodiscard]] bool append(const void* data, std::size_t size) {
    return file_ && utility::write_all(file_.get(), data, size) == size;
  }
  [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(file_.get()); }

 private:
  utility::Descriptor file_;
};

/// Finds the settings that are missing in the configuration file @a path.
void read_settings(const std::string& path, AgentPackage::Config& config) {
  // No setting has this value: the character cannot occur in XML.
  const std::string unset("\x01");
  for (const char* name : config::kSettingNames) {
    std::string value = unset;
    if (config::get_config_var(path, name, value) != 0) return;
    if (value == unset) config.missing_settings.emplace_back(name);
  }
  config.is_readable = true;
}

/// The version in the line of the script that begins with kVersionMark.
std::optional<std::string> recorded_version(std::string_view script) {
  const std::string_view mark(kVersionMark);
  while (!script.empty()) {
    const std::string_view line = script.substr(0, script.find('\n'));
    if (line.substr(0, mark.size()) == mark) return std::string(line.substr(mark.size()));
    script.remove_prefix(std::min(line.size() + 1, script.size()));
  }
  return std::nullopt;
}

class Reader {
 public:
  explicit Reader(archive* archive) : archive_(archive) {}

  AgentPackage read() {
    archive_entry* entry = nullptr;
    for (;;) {
      const int status = archive_read_next_header(archive_, &entry);
      if (status == ARCHIVE_EOF) break;
      if (status < ARCHIVE_WARN) {
        fail();
        break;
      }
      if (!read_member(entry)) break;
    }
    return std::move(package_);
  }

 private:
  /// @return false if the rest of the package cannot be read
  bool read_member(archive_entry* entry) {
    const std::string path = path_of(entry);
    const std::string hard_link = hard_link_of(entry);
    verify_path(path);
    if (!hard_link.empty()) {
      verify_link(path, hard_link, 0);
    } else if (archive_entry_filetype(entry) == AE_IFLNK) {
      verify_link(path, symbolic_link_of(entry), directory_depth(path));
    } else if (archive_entry_filetype(entry) == AE_IFREG) {
      return read_file(path);
    }
    return skip_data();
  }

  bool read_file(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name == kPackageScript && directory_depth(path) == 0) return read_script();
    if (name == kConfig) return read_config(path);
    return skip_data();
  }

  void verify_path(const std::string& path) {
    if (is_absolute(path) || has_parent_step(path)) add_outside(path);
  }

  void verify_link(const std::string& path, const std::string& target, std::size_t depth) {
    if (is_absolute(target) || leaves(target, depth)) add_outside(path + " -> " + target);
  }

  void add_outside(const std::string& what) {
    if (package_.outside.size() < kMostNamed) package_.outside.push_back(what);
  }

  bool read_script() {
    std::string text;
    const bool is_whole = for_each_block([&](const char* data, std::size_t size) {
      text.append(data, std::min(size, kMostScriptBytes - text.size()));
    });
    const std::string first_line = text.substr(0, text.find('\n'));
    package_.has_script = true;
    package_.script_has_carriage_return =
        first_line.rfind("#!", 0) == 0 && first_line.find('\r') != std::string::npos;
    package_.version = recorded_version(text);
    return is_whole;
  }

  bool read_config(const std::string& path) {
    AgentPackage::Config config;
    config.member = path;
    MemoryFile file;
    std::size_t total = 0;
    bool is_stored = true;
    const bool is_whole = for_each_block([&](const char* data, std::size_t size) {
      total += size;
      if (total <= kMostConfigBytes) is_stored = is_stored && file.append(data, size);
    });
    if (total <= kMostConfigBytes && is_stored) read_settings(file.path(), config);
    if (package_.configs.size() < kMostNamed) package_.configs.push_back(std::move(config));
    return is_whole;
  }

  bool skip_data() {
    return for_each_block([](const char*, std::size_t) {});
  }

  /// Calls @a take with the member's data, block by block.
  /// @return false if the data is incomplete
  template <typename Take>
  bool for_each_block(const Take& take) {
    for (;;) {
      const la_ssize_t count = archive_read_data(archive_, block_.data(), block_.size());
      if (count == 0) return true;
      if (count < 0) {
        fail();
        return false;
      }
      take(block_.data(), static_cast<std::size_t>(count));
    }
  }

  void fail() { package_.damage = text_or_empty(archive_error_string(archive_)); }

  archive* archive_;
  AgentPackage package_;
  std::vector<char> block_ = std::vector<char>(kReadBytes);
};

bool ends_with_zero_blocks(const std::string& path) {
  const utility::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0) return false;
  std::array<char, kEndBytes> end = {};
  const off_t offset = status.st_size - static_cast<off_t>(end.size());
  if (offset < 0) return false;
  if (::pread(file.get(), end.data(), end.size(), offset) != static_cast<ssize_t>(end.size())) {
    return false;
  }
  return std::all_of(end.begin(), end.end(), [](char c) { return c == '\0'; });
}

}  // namespace

AgentPackage read_agent_package(const std::string& path) {
  const ArchivePtr archive(archive_read_new());
  if (!archive || archive_read_support_format_tar(archive.get()) != ARCHIVE_OK ||
      archive_read_open_filename(archive.get(), path.c_str(), kReadBytes) != ARCHIVE_OK) {
    AgentPackage package;
    package.damage = archive ? text_or_empty(archive_error_string(archive.get())) : "out of memory";
    return package;
  }
  AgentPackage package = Reader(archive.get()).read();
  package.has_end = ends_with_zero_blocks(path);
  return package;
}

}  // namespace publish
