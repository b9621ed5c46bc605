#include "manifest.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <system_error>

#include "failure.h"

namespace publish {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kDigestDigits = 64;
constexpr char kSeparator[] = "  ";  // sha256sum's, for files read as text
constexpr std::size_t kSeparatorBytes = sizeof(kSeparator) - 1;

bool fits_a_manifest(const std::string& name) {
  return std::none_of(name.begin(), name.end(), [](unsigned char c) {
    return std::iscntrl(c) != 0 || c == '\\';  // sha256sum would escape these
  });
}

bool is_own_entry(const std::string& name) {
  return name == kReleasesDirectory || name == kInPlaceDraft;
}

}  // namespace

std::vector<std::string> list_files(const fs::path& root) {
  std::vector<std::string> files;
  try {
    for (fs::recursive_directory_iterator i(root); i != fs::end(i); ++i) {
      const fs::directory_entry& entry = *i;
      if (i.depth() == 0 && is_own_entry(entry.path().filename())) {
        i.disable_recursion_pending();
        continue;
      }
      if (!fits_a_manifest(entry.path().filename().string())) {
        throw Failure("a file name has a control character or a backslash: " +
                      entry.path().string());
      }
      const fs::file_status status = entry.symlink_status();
      if (fs::is_directory(status)) continue;
      if (!fs::is_regular_file(status)) {
        throw Failure("neither a directory nor a regular file: " + entry.path().string() +
                      " (replace a symbolic link with what it points to)");
      }
      files.push_back(entry.path().lexically_relative(root).string());
    }
  } catch (const fs::filesystem_error& error) {
    throw Failure("cannot read " + error.path1().string() + ": " + error.code().message());
  }
  std::sort(files.begin(), files.end());
  return files;
}

Manifest scan_release(const fs::path& root, const Progress& progress) {
  const std::vector<std::string> names = list_files(root);
  std::vector<fs::path> files;
  files.reserve(names.size());
  for (const std::string& name : names) files.push_back(root / name);
  std::vector<std::string> digests = sha256(files, progress);
  Manifest manifest;
  for (std::size_t i = 0; i < names.size(); ++i) {
    manifest.emplace_hint(manifest.end(), names[i], std::move(digests[i]));
  }
  return manifest;
}

Manifest read_manifest(const fs::path& path) {
  std::ifstream file(path);
  Manifest manifest;
  std::string line;
  while (std::getline(file, line)) {
    if (line.size() <= kDigestDigits + kSeparatorBytes ||
        line.compare(kDigestDigits, kSeparatorBytes, kSeparator) != 0) {
      throw Failure("not a manifest: " + path.string());
    }
    manifest.emplace(line.substr(kDigestDigits + kSeparatorBytes), line.substr(0, kDigestDigits));
  }
  if (!file.eof()) throw Failure("cannot read " + path.string());
  return manifest;
}

std::string manifest_text(const Manifest& manifest) {
  std::string text;
  for (const auto& [path, digest] : manifest) {
    text.append(digest).append(kSeparator).append(path).append("\n");
  }
  return text;
}

std::vector<std::string> differences(const Manifest& published, const Manifest& found) {
  std::vector<std::string> paths;
  for (const auto& [path, digest] : published) {
    const auto other = found.find(path);
    if (other == found.end() || other->second != digest) paths.push_back(path);
  }
  for (const auto& [path, digest] : found) {
    if (published.count(path) == 0) paths.push_back(path);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace publish
