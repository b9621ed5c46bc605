#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>

#include "check_areas.h"
#include "utility/md5wrapper.h"

namespace publish {

namespace {

constexpr char kNewList[] = "Write the file's digest anew: 32 lower-case digits and a line feed.";
constexpr std::size_t kDigestDigits = 32;
/// Enough of a list to see what is wrong with it.
constexpr std::size_t kReadBytes = 4096;

std::string beginning(const std::string& path) {
  std::array<char, kReadBytes> bytes{};
  std::ifstream file(path, std::ios::binary);
  (void)file.read(bytes.data(), bytes.size());
  return {bytes.data(), static_cast<std::size_t>(file.gcount())};
}

bool is_digest(const std::string& text) {
  return text.size() == kDigestDigits && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

bool contains(const std::string& text, char c) { return text.find(c) != std::string::npos; }

std::string lower_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

/// What is wrong with the form of the list @a text; empty if nothing is.
std::string wrong_form(const std::string& text) {
  if (text.empty()) return "The digest list is empty. Hosts cannot use it.";
  const std::string first_line = text.substr(0, text.find('\n'));
  const std::string first_digits = first_line.substr(0, kDigestDigits);
  if (contains(text.substr(0, text.size() - 1), '\n')) {
    return "The digest list has several lines. Hosts take it for an error page and do not update.";
  }
  if (is_digest(first_line)) return "";
  if (contains(text, '\r')) {
    return "The digest list has a carriage return. Hosts never find that they have this file: they "
           "download it on each run, or refuse it.";
  }
  if (is_digest(lower_case(first_line))) {
    return "The digest has capital letters, which never match. Hosts download the file on each run "
           "and refuse it.";
  }
  if (is_digest(first_digits)) {
    return "The digest list has more than the digest in its line. Hosts download the file on each "
           "run, or refuse it.";
  }
  return "The digest list does not hold an MD5 digest. Hosts download the file on each run and "
         "refuse it.";
}

}  // namespace

tools::Finding explain_digest_list(const TreeReader& tree, const std::string& list,
                                   const std::string& file) {
  const std::string wrong = wrong_form(beginning(tree.on_disk(list)));
  if (!wrong.empty()) {
    return make_finding(findings::kListFormat, TreeReader::shown(list), wrong, kNewList);
  }
  return make_finding(findings::kListDigest, TreeReader::shown(list),
                      "The digest is not that of the file, which is " +
                          utility::md5wrapper().getHashFromFile(tree.on_disk(file)) +
                          ". Hosts download the file on each run and refuse it.",
                      "If the file is the right one: " + std::string(kNewList));
}

}  // namespace publish
