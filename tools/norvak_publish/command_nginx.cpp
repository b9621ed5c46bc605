#include <algorithm>
#include <cctype>

#include "commands.h"
#include "published_digest.h"
#include "server_paths.h"
#include "utility/md5wrapper.h"

namespace publish {

namespace {

constexpr int kWordSize64 = 64;

/// Whether @a name can be part of a URL as it is: hosts do not escape it.
bool fits_a_url(const std::string& name) {
  return !name.empty() && name.find_first_not_of('.') != std::string::npos &&
         std::all_of(name.begin(), name.end(), [](unsigned char c) {
           return std::isalnum(c) != 0 || c == '.' || c == '-' || c == '_' || c == '+';
         });
}

}  // namespace

ExitStatus run_nginx(const PublishOptions& options, const NginxCommand& command) {
  if (!fits_a_url(command.version_dir)) {
    throw UsageError("--version names a directory on the server: letters, digits, \".-_+\"");
  }
  const std::string identification =
      command.identification.value_or(utility::md5wrapper().getHashFromFile(command.program));
  if (identification.empty() || identification.size() > published_digest::kMaxLineBytes ||
      identification.find_first_of(std::string("\n\0", 2)) != std::string::npos) {
    throw UsageError("--identification is one line of at most 127 bytes");
  }
  const std::string directory = server_paths::nginx_directory(
      command.word_size == kWordSize64 ? server_paths::kX64 : server_paths::kX86,
      command.version_dir);
  return publish_changes(options, [&](Draft& draft) {
    draft.put_copy(server_paths::nginx_program(directory), command.program);
    draft.put_text(server_paths::nginx_identification(directory), identification + "\n");
  });
}

}  // namespace publish
