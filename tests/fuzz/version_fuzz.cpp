// The whole version check, with a configuration that has an installed version, and a server (a
// directory, over file://) that has a version file.
// Input: installed version|bytes of the server's version file
#include <sys/stat.h>

#include <cstring>
#include <optional>
#include <stdexcept>

#include "models.h"
#include "support.h"
#include "update_soft.h"

namespace {

constexpr char kServerFile[] = "/var/log/server/norvak/norvak_agent_new_version.txt";
constexpr char kConfig[] = "/var/log/agent/config.xml";
constexpr std::size_t kVersionLimit = 64;
constexpr std::size_t kCountLimit = 1024;
constexpr std::size_t kPrefix = 6;

/// The result of a check; nothing if a version was too short.
using Answer = std::optional<bool>;

// ---- The model ----

string_list fields_of(const std::string& text, const char* separators) {
  string_list fields;
  std::string copy = text + '\0';
  char* position = nullptr;
  for (char* field = ::strtok_r(copy.data(), separators, &position); field != nullptr;
       field = ::strtok_r(nullptr, separators, &position)) {
    fields.emplace_back(field);
  }
  return fields;
}

/// Whether the version file is accepted: exactly one line (or piece of a long line) has text.
bool has_one_line(const std::string& file) {
  int count = 0;
  for (const std::string& piece : fuzz::line_pieces(file, kCountLimit)) {
    if (!piece.empty() && piece.front() != '\n') ++count;
  }
  return count == 1;
}

Answer model_of_newer(const std::string& offered, const std::string& installed) {
  if (offered.size() < kPrefix || installed.size() < kPrefix) return std::nullopt;
  const string_list left = fields_of(offered.substr(kPrefix), ".");
  const string_list right = fields_of(installed.substr(kPrefix), ".");
  for (std::size_t i = 0; i < left.size() && i < right.size(); ++i) {
    const int difference = fuzz::leading_int(left[i]) > fuzz::leading_int(right[i])   ? 1
                           : fuzz::leading_int(left[i]) < fuzz::leading_int(right[i]) ? -1
                                                                                      : 0;
    if (difference != 0) return difference > 0;
  }
  return false;
}

Answer model(const std::string& installed, const std::string& file) {
  if (!has_one_line(file)) return false;
  return model_of_newer(fuzz::first_line(file, kVersionLimit), installed);
}

// ---- The check ----

/// @a text as an attribute value, with special characters as references.
std::string escaped(const std::string& text) {
  std::string result;
  for (const char c : text) {
    const bool plain = static_cast<unsigned char>(c) >= ' ' && std::strchr("&<>\"'", c) == nullptr;
    result += plain ? std::string(1, c) : "&#" + std::to_string(int{c}) + ";";
  }
  return result;
}

void write_config(const std::string& installed) {
  fuzz::write_file(kConfig,
                   "<norvak><Process><Data>"
                   "<var name=\"update_host\" value=\"file:///var/log/server\"/>"
                   "<var name=\"version\" value=\"" +
                       escaped(installed) + "\"/></Data></Process></norvak>");
}

Answer answer(const std::string& installed, const std::string& file) {
  write_config(installed);
  fuzz::write_file(kServerFile, file);
  CUpdateSoftImpl updater;
  (void)updater.init();
  std::string old_version;
  std::string new_version;
  Answer result;
  try {
    result = updater.check_norvak_new_version_exist(old_version, new_version);
  } catch (const std::out_of_range&) {
    result = std::nullopt;
  }
  if (has_one_line(file)) {
    fuzz::check_equal(old_version, installed, "the installed version is the configuration's");
    fuzz::check_equal(new_version, fuzz::first_line(file, kVersionLimit),
                      "the server's version is the first line");
  }
  updater.release();
  return result;
}

void check_parse_version(const std::string& version, const std::string& separators) {
  string_list parts = {"kept"};
  CUpdateSoftImpl::parse_version(version, separators, parts);
  string_list expected = fields_of(version, separators.c_str());
  expected.insert(expected.begin(), "kept");
  fuzz::check_equal(parts, expected, "parse_version appends the fields");
}

/// Whether both an attribute value and the first line of a version file can be @a text.
bool fits_both_places(const std::string& text) {
  return text.size() >= kPrefix && text.size() < kVersionLimit &&
         text.find('\n') == std::string::npos;
}

void check_order(const std::string& installed, const std::string& offered, bool newer) {
  fuzz::check(!(newer && *answer(offered, installed)), "of two versions one at most is newer");
  fuzz::check(answer("other " + installed.substr(kPrefix), "------" + offered.substr(kPrefix)) ==
                  Answer(newer),
              "the prefix does not count");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::enter_private_directory();
  fuzz::check(::mkdir("/var/log/server", 0700) == 0 && ::mkdir("/var/log/server/norvak", 0700) == 0,
              "the target can make its own directories");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Fields fields(data, size);
  const std::string installed = fuzz::before_nul(fields.next());
  const std::string file = fields.rest();
  const Answer newer = answer(installed, file);
  fuzz::check(newer == model(installed, file), "the answer is the model's");

  const std::string offered = fuzz::first_line(file, kVersionLimit);
  if (has_one_line(file) && fits_both_places(installed) && fits_both_places(offered)) {
    check_order(installed, offered, *newer);
  }
  check_parse_version(fuzz::before_nul(file), installed);
  return 0;
}
