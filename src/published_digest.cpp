#include "published_digest.h"

#include "utility/cstr.h"
#include "utility/file.h"
#include "utility/md5wrapper.h"
#include "utility/string_list.h"

namespace published_digest {

namespace {

constexpr int kLineLimit = 1024;
constexpr int kDigestLimit = static_cast<int>(kMaxLineBytes) + 1;

/// A list with this many lines is not a digest list; no more of it is read.
constexpr std::size_t kTooManyLines = 2;

/// @return nothing if the list cannot be opened
std::optional<string_list> read_list(const std::string& path) {
  utility::LineReader reader(path, kLineLimit);
  if (!reader) return std::nullopt;
  string_list lines;
  std::string line;
  while (lines.size() < kTooManyLines && reader.next(line)) lines.push_back(line);
  return lines;
}

std::string digest_of(const std::string& path) {
  return utility::md5wrapper().getHashFromFile(path);
}

}  // namespace

ModuleState compare_module(const std::string& list_path, const std::string& module_path) {
  const std::optional<string_list> lines = read_list(list_path);
  if (!lines) return ModuleState::kUnreadable;
  if (lines->size() >= kTooManyLines) return ModuleState::kAbnormal;
  const bool is_current =
      !lines->empty() && utility::exists(module_path) && digest_of(module_path) == lines->front();
  return is_current ? ModuleState::kCurrent : ModuleState::kDiffers;
}

bool verify_module(const std::string& list_path, const std::string& module_path) {
  std::optional<std::string> published = utility::read_first_line(list_path, kDigestLimit);
  if (!published) return false;
  utility::CStr::trim(*published);
  return digest_of(module_path) == *published;
}

std::optional<std::string> current_rules(const std::string& record_path) {
  if (!utility::exists(record_path)) return "";
  std::optional<std::string> line = utility::read_first_line(record_path, kLineLimit);
  if (line) utility::remove_line_feed(*line);
  return line;
}

bool is_list(const std::string& list_path) {
  const std::optional<string_list> lines = read_list(list_path);
  return lines && lines->size() == 1;
}

bool announces_new_rules(const std::string& list_path, const std::string& current) {
  const std::optional<string_list> lines = read_list(list_path);
  return lines && lines->size() == 1 && lines->front() != current;
}

bool verify_rules(const std::string& list_path, const std::string& rules_path) {
  std::optional<std::string> published = utility::read_first_line(list_path, kDigestLimit);
  if (!published) return false;
  utility::remove_line_feed(*published);
  return digest_of(rules_path) == *published;
}

std::string nginx_identification(const std::string& path) {
  return utility::read_first_line(path, kDigestLimit).value_or("");
}

bool same_nginx_build(const std::string& installed_path, const std::string& published_path) {
  return utility::exists(installed_path) &&
         nginx_identification(installed_path) == nginx_identification(published_path);
}

}  // namespace published_digest
