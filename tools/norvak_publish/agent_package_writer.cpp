#include "agent_package_writer.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <map>
#include <memory>
#include <string_view>
#include <system_error>

#include "agent_files.h"
#include "agent_package.h"
#include "failure.h"
#include "files.h"
#include "package_script.h"
#include "utility/file.h"
#include "utility/md5.h"
#include "utility/md5wrapper.h"

namespace publish {

namespace fs = std::filesystem;

namespace {

constexpr char kFile[] = "file";
constexpr char kDir[] = "dir";
constexpr char kLink[] = "link";
constexpr char kRemove[] = "remove";
constexpr char kPre[] = "pre";
constexpr char kPost[] = "post";
constexpr char kNone[] = "-";

// In the package; the script knows these names.
constexpr char kPayload[] = "payload/";
constexpr char kManifest[] = "manifest";
constexpr char kDigests[] = "digests";
// Left on hosts while the script runs; likewise.
constexpr char kJournal[] = ".norvak_install";
constexpr const char* kSuffixes[] = {".norvak-new", ".norvak-old"};

constexpr std::size_t kFields = 5;
constexpr std::size_t kBlockBytes = std::size_t{128} * 1024;
constexpr std::time_t kTime = 315532800;  // 1980-01-01: tar warns of times near zero
constexpr std::uintmax_t kKib = 1024;
constexpr std::uintmax_t kFileOverheadKib = 8;  // a partly used block, and the directory entry
constexpr std::uintmax_t kReserveKib = 64;      // the journal, and directories that grow

bool is_one_of(const std::string& text, std::initializer_list<const char*> choices) {
  return std::find(choices.begin(), choices.end(), text) != choices.end();
}

bool is_octal_mode(const std::string& text) {
  return (text.size() == 3 || text.size() == 4) &&
         text.find_first_not_of("01234567") == std::string::npos;
}

bool is_account(const std::string& text) {
  return !text.empty() && text != kNone &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) {
           return std::isalnum(c) != 0 || c == '_' || c == '-' || c == '.';
         });
}

bool ends_with(const std::string& text, std::string_view end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// Whether the updater or the script itself uses @a path on hosts.
bool is_reserved(const std::string& path) {
  const std::string top = "/" + path.substr(0, path.find('/'));
  for (const char* work_dir : agent_files::kWorkDirs) {
    if (top == work_dir) return true;
  }
  return top == agent_files::kUpdateMarker || top.compare(1, sizeof(kJournal) - 1, kJournal) == 0 ||
         std::any_of(std::begin(kSuffixes), std::end(kSuffixes),
                     [&](const char* suffix) { return ends_with(path, suffix); });
}

/// Whether @a path is normalized, leads to something below the directory that it follows, and can
/// be a field of a manifest.
bool is_plain_path(const std::string& path) {
  const bool printable = std::none_of(
      path.begin(), path.end(), [](unsigned char c) { return std::iscntrl(c) != 0 || c == '\\'; });
  return printable && !path.empty() && path == fs::path(path).lexically_normal().string() &&
         path[0] != '/' && path != "." && path != ".." && path.compare(0, 3, "../") != 0 &&
         path.back() != '/';
}

/// @return what is wrong with the fields of @a entry; empty if nothing
std::string complaint(const PackageEntry& entry) {
  if (!is_one_of(entry.type, {kFile, kDir, kLink, kRemove, kPre, kPost})) {
    return "the type is none of file, dir, link, remove, pre, post";
  }
  const bool has_mode = is_one_of(entry.type, {kFile, kDir});
  if (has_mode ? !is_octal_mode(entry.mode) : entry.mode != kNone) {
    return has_mode ? "the mode is not octal" : "only file and dir have a mode; write -";
  }
  const bool has_owner = has_mode || entry.type == kLink;
  for (const std::string& account : {entry.owner, entry.group}) {
    if (has_owner ? !is_account(account) : account != kNone) {
      return has_owner ? "owner and group are names or numbers"
                       : "only file, dir and link have an owner and a group; write -";
    }
  }
  if (!is_plain_path(entry.path)) {
    return "the path is not a plain one below the install directory";
  }
  if (is_reserved(entry.path)) return "the path is one that updates use themselves";
  return "";
}

std::vector<std::string> split_at_tabs(const std::string& line) {
  std::vector<std::string> fields(1);
  for (const char c : line) {
    if (c == '\t') {
      fields.emplace_back();
    } else {
      fields.back() += c;
    }
  }
  return fields;
}

struct ArchiveFree {
  void operator()(archive* archive) const noexcept { (void)archive_write_free(archive); }
};
using ArchivePtr = std::unique_ptr<archive, ArchiveFree>;

struct EntryFree {
  void operator()(archive_entry* entry) const noexcept { archive_entry_free(entry); }
};
using EntryPtr = std::unique_ptr<archive_entry, EntryFree>;

/// A tar archive that is written to an open file.
class TarWriter {
 public:
  explicit TarWriter(int fd) : archive_(archive_write_new()) {
    if (!archive_) throw Failure("cannot make a tar archive");
    require(archive_write_set_format_ustar(archive_.get()));
    require(archive_write_add_filter_none(archive_.get()));
    require(archive_write_open_fd(archive_.get(), fd));
  }

  void add_directory(const std::string& name) { (void)begin(name, AE_IFDIR, 0755, 0, nullptr); }

  void add_link(const std::string& name, const std::string& target) {
    (void)begin(name, AE_IFLNK, 0777, 0, target.c_str());
  }

  void add_text(const std::string& name, const std::string& text, unsigned mode) {
    (void)begin(name, AE_IFREG, mode, text.size(), nullptr);
    write(name, text.data(), text.size());
  }

  /// @return the file's MD5 digest, of exactly the bytes that were written
  std::string add_file(const std::string& name, const fs::path& source) {
    const utility::Descriptor file(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) fail_with_errno("cannot read", source);
    std::error_code error;
    std::uintmax_t left = fs::file_size(source, error);
    if (error) throw Failure("cannot read " + source.string() + ": " + error.message());
    begin(name, AE_IFREG, 0644, left, nullptr);
    utility::MD5 md5;
    utility::MD5_CTX context{};
    md5.MD5Init(&context);
    std::vector<unsigned char> block(kBlockBytes);
    while (left > 0) {
      const ssize_t size = utility::read_some(file.get(), block.data(),
                                              std::min<std::uintmax_t>(left, block.size()));
      if (size < 0) fail_with_errno("cannot read", source);
      if (size == 0) throw Failure("became shorter while it was read: " + source.string());
      md5.MD5Update(&context, block.data(), static_cast<unsigned>(size));
      write(name, block.data(), static_cast<std::size_t>(size));
      left -= static_cast<std::uintmax_t>(size);
    }
    std::array<unsigned char, 16> digest{};
    md5.MD5Final(digest.data(), &context);
    return utility::md5wrapper().convToString(digest.data());
  }

  void close() { require(archive_write_close(archive_.get())); }

 private:
  void begin(const std::string& name, unsigned type, unsigned mode, std::uintmax_t size,
             const char* link_target) {
    const EntryPtr entry(archive_entry_new());
    if (!entry) throw Failure("cannot make a tar archive");
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), type);
    archive_entry_set_perm(entry.get(), static_cast<mode_t>(mode));
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(size));
    archive_entry_set_mtime(entry.get(), kTime, 0);
    archive_entry_set_uname(entry.get(), "root");
    archive_entry_set_gname(entry.get(), "root");
    if (link_target != nullptr) archive_entry_set_symlink(entry.get(), link_target);
    // Warnings count as errors: they mean that something was left out.
    if (archive_write_header(archive_.get(), entry.get()) != ARCHIVE_OK) fail(name);
  }

  void write(const std::string& name, const void* data, std::size_t size) {
    if (archive_write_data(archive_.get(), data, size) != static_cast<la_ssize_t>(size)) fail(name);
  }

  void require(int result) {
    if (result != ARCHIVE_OK) fail("the package");
  }

  [[noreturn]] void fail(const std::string& name) {
    const char* reason = archive_error_string(archive_.get());
    throw Failure("cannot write " + name + ": " + (reason == nullptr ? "unknown" : reason));
  }

  ArchivePtr archive_;
};

/// The entries as the script reads them: directories first, each before what it contains.
std::vector<PackageEntry> in_order(std::vector<PackageEntry> entries) {
  std::stable_sort(entries.begin(), entries.end(),
                   [](const PackageEntry& a, const PackageEntry& b) {
                     if ((a.type == kDir) != (b.type == kDir)) return a.type == kDir;
                     return a.type == kDir && a.path < b.path;
                   });
  return entries;
}

/// Disk space that the staged files take.
std::uintmax_t needed_kib(const PackageContents& contents) {
  std::uintmax_t kib = kReserveKib;
  for (const PackageEntry& entry : contents.entries) {
    if (entry.type != kFile) continue;
    std::error_code error;
    kib += fs::file_size(contents.payload / entry.path, error) / kKib + kFileOverheadKib;
  }
  return kib;
}

std::string script(const PackageContents& contents, const std::string& digests) {
  return std::string("#!/bin/sh\n") + kVersionMark + contents.version +
         "\nversion=" + shell_quoted(contents.version) +
         "\nneed_kib=" + std::to_string(needed_kib(contents)) +
         "\ndigests_md5=" + utility::md5wrapper().getHashFromString(digests) + "\n" +
         kPackageScriptBody;
}

void write_members(TarWriter& tar, const PackageContents& contents) {
  std::string manifest;
  std::string digests;
  tar.add_directory(kPayload);
  for (const PackageEntry& entry : in_order(contents.entries)) {
    manifest += entry.type + "\t" + entry.mode + "\t" + entry.owner + "\t" + entry.group + "\t" +
                entry.path + "\n";
    if (entry.type == kRemove) continue;
    const std::string name = kPayload + entry.path;
    const fs::path source = contents.payload / entry.path;
    if (entry.type == kDir) {
      tar.add_directory(name + "/");
    } else if (entry.type == kLink) {
      tar.add_link(name, fs::read_symlink(source));
    } else {
      digests += tar.add_file(name, source) + "  " + name + "\n";
    }
  }
  digests += utility::md5wrapper().getHashFromString(manifest) + "  " + kManifest + "\n";
  tar.add_text(kManifest, manifest, 0644);
  tar.add_text(kDigests, digests, 0644);
  // Last: a truncated package has no script, and installs nothing.
  tar.add_text(kPackageScript, script(contents, digests), 0755);
  tar.close();
}

/// How the payload contradicts @a entry; empty if it does not.
std::string misfit(const fs::path& payload, const PackageEntry& entry) {
  const fs::file_status status = fs::symlink_status(payload / entry.path);
  if (entry.type == kRemove) return fs::exists(status) ? " is in the payload, but removed" : "";
  if (!fs::exists(status)) return " is not in the payload";
  if (entry.type == kDir) return fs::is_directory(status) ? "" : " is not a directory";
  if (entry.type == kLink) return fs::is_symlink(status) ? "" : " is not a symbolic link";
  return fs::is_regular_file(status) ? "" : " is not a regular file";
}

/// Whether @a directory of the payload contains scripts, which are not installed.
bool holds_scripts(const std::vector<PackageEntry>& entries, const std::string& directory) {
  return std::any_of(entries.begin(), entries.end(), [&](const PackageEntry& entry) {
    return is_one_of(entry.type, {kPre, kPost}) &&
           entry.path.compare(0, directory.size() + 1, directory + "/") == 0;
  });
}

}  // namespace

std::vector<PackageEntry> read_package_manifest(const fs::path& path) {
  std::ifstream file(path);
  std::vector<PackageEntry> entries;
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    if (line.empty() || line[0] == '#') continue;
    const std::string where = path.string() + ":" + std::to_string(number) + ": ";
    const std::vector<std::string> fields = split_at_tabs(line);
    if (fields.size() != kFields) {
      throw Failure(where + "not five fields separated by tabs: type, mode, owner, group, path");
    }
    const PackageEntry entry{fields[0], fields[1], fields[2], fields[3], fields[4]};
    const std::string wrong = complaint(entry);
    if (!wrong.empty()) throw Failure(where + wrong);
    entries.push_back(entry);
  }
  if (!file.eof()) throw Failure("cannot read " + path.string());
  return entries;
}

std::vector<std::string> check_contents(const PackageContents& contents) {
  const std::string config = &agent_files::kConfig[1];
  std::vector<std::string> wrong;
  std::map<std::string, std::string> types;  // by path
  for (const PackageEntry& entry : contents.entries) {
    if (!types.emplace(entry.path, entry.type).second)
      wrong.push_back(entry.path + " is listed twice");
    const std::string reason = misfit(contents.payload, entry);
    if (!reason.empty()) wrong.push_back(entry.path + reason);
    if (entry.path == config && entry.type != kFile) {
      wrong.push_back(config + " must stay a file: updates read it");
    } else if (entry.path == config && !contents.replace_config) {
      wrong.push_back(config + " would replace the hosts' server addresses (--replace-config)");
    }
  }
  const auto type_of = [&](const std::string& path) {
    const auto found = types.find(path);
    return found == types.end() ? "" : found->second;
  };
  for (const PackageEntry& entry : contents.entries) {
    const std::string parent = fs::path(entry.path).parent_path();
    if (!parent.empty() && is_one_of(entry.type, {kFile, kDir, kLink}) && type_of(parent) != kDir) {
      wrong.push_back(entry.path + " needs a line for the directory " + parent);
    }
  }
  for (const fs::directory_entry& found : fs::recursive_directory_iterator(contents.payload)) {
    const std::string path = found.path().lexically_relative(contents.payload);
    const bool listed = types.count(path) != 0 || holds_scripts(contents.entries, path);
    if (!listed) wrong.push_back(path + " is not in the manifest");
  }
  return wrong;
}

void write_package(const fs::path& output, const PackageContents& contents) {
  NewFile file(output);
  TarWriter tar(file.fd());
  write_members(tar, contents);
  file.commit(0644);
}

std::string shell_quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace publish
