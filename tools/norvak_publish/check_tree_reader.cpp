#include "check_tree_reader.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>

#include "files.h"
#include "utility/file.h"

namespace publish {

namespace {

constexpr char kMakeReadable[] = "Let everyone read it: chmod -R a+rX on the tree.";

/// Suffixes that editors, copying programs and this program give to unfinished files.
constexpr const char* kTemporaryEndings[] = {kTemporarySuffix, "~",    ".tmp", ".part",
                                             ".swp",           ".bak", ".orig"};

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool is_leftover(const std::string& name) {
  return name.front() == '.' ||
         std::any_of(std::begin(kTemporaryEndings), std::end(kTemporaryEndings),
                     [&](const char* end) { return ends_with(name, end); });
}

std::string lower_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

std::string TreeReader::join(const std::string& directory, const std::string& name) {
  std::string path(directory);
  path += '/';
  path += name;
  return path;
}

bool TreeReader::exists(const std::string& path) const {
  struct stat status = {};
  return ::lstat(on_disk(path).c_str(), &status) == 0;
}

std::vector<std::string> TreeReader::list(const std::string& path, Findings& findings) const {
  const utility::DirPtr directory(::opendir(on_disk(path).c_str()));
  struct stat status = {};
  if (!directory || ::fstat(::dirfd(directory.get()), &status) != 0 ||
      (status.st_mode & S_IXOTH) == 0) {
    findings.push_back(make_finding(
        findings::kUnreadable, shown(path),
        directory ? "Only some users may enter this directory, so that the web server may not be "
                    "able to send the files in it: hosts then get an error page instead."
                  : std::string("This directory cannot be read: ") + std::strerror(errno) + ".",
        kMakeReadable));
  }
  std::vector<std::string> names;
  if (!directory) return names;
  while (const dirent* const entry = ::readdir(directory.get())) {
    const std::string name(entry->d_name);
    if (name == "." || name == "..") continue;
    if (is_leftover(name)) {
      findings.push_back(make_finding(findings::kLeftover, shown(join(path, name)),
                                      "A hidden or temporary file. No host requests it, but it may "
                                      "be what an interrupted copy left.",
                                      "Remove it, and make sure that the copy was completed."));
    } else {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  std::map<std::string, std::string> seen;
  for (const std::string& name : names) {
    const auto [first, is_new] = seen.try_emplace(lower_case(name), name);
    if (is_new) continue;
    findings.push_back(make_finding(
        findings::kNamesDifferInCase, shown(join(path, name)),
        "The name differs from " + first->second +
            " in letter case only. Hosts request one of them, and a copy of the tree on a file "
            "system that ignores case keeps only one.",
        "Remove the one that no host requests."));
  }
  return names;
}

bool TreeReader::require_file(const std::string& path, const std::string& why,
                              Findings& findings) const {
  struct stat status = {};
  if (::stat(on_disk(path).c_str(), &status) != 0) {
    const bool is_missing = errno == ENOENT || errno == ENOTDIR;
    findings.push_back(is_missing
                           ? make_finding(findings::kMissing, shown(path),
                                          "This file is missing, or is a link to nothing. " + why,
                                          "Publish it.")
                           : make_finding(findings::kUnreadable, shown(path),
                                          std::string("This file cannot be read: ") +
                                              std::strerror(errno) + ". " + why,
                                          kMakeReadable));
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    findings.push_back(make_finding(findings::kUnreadable, shown(path),
                                    "This is not a file. " + why, "Replace it with the file."));
    return false;
  }
  if ((status.st_mode & S_IROTH) == 0) {
    findings.push_back(make_finding(
        findings::kUnreadable, shown(path),
        "Only some users may read this file, so that the web server may not be able to. " + why,
        kMakeReadable));
  }
  return true;
}

void TreeReader::add_unrequested(const std::string& path, Findings& findings) {
  findings.push_back(make_finding(findings::kUnrequested, shown(path), "No host requests this.",
                                  "Check the name, or remove it from the tree."));
}

}  // namespace publish
