#include <algorithm>
#include <cctype>
#include <iostream>

#include "agent_package_writer.h"
#include "commands.h"

namespace publish {

ExitStatus run_package(const PublishOptions& options, const PackageCommand& command) {
  const std::string& version = command.version;
  if (version.empty() || std::any_of(version.begin(), version.end(),
                                     [](unsigned char c) { return std::iscntrl(c) != 0; })) {
    throw UsageError("--version is a text without control characters");
  }
  const PackageContents contents{version, command.payload, read_package_manifest(command.manifest),
                                 command.replace_config};
  const std::vector<std::string> wrong = check_contents(contents);
  for (const std::string& sentence : wrong) {
    std::cerr << "norvak_publish: " << tools::printable(sentence) << "\n";
  }
  if (!wrong.empty()) return ExitStatus::kErrorsFound;
  if (!options.dry_run) write_package(command.output, contents);
  return ExitStatus::kDone;
}

}  // namespace publish
