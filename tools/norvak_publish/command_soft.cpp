#include "commands.h"
#include "server_paths.h"

namespace publish {

ExitStatus run_soft(const PublishOptions& options, const SoftCommand& command) {
  if (command.version.find('\n') != std::string::npos) {
    throw UsageError("the version is not one line");
  }
  return publish_changes(options, [&](Draft& draft) {
    // The version file is last: once hosts see it, they download a package.
    draft.put_copy(server_paths::agent_package(server_paths::kX64), command.package_x64);
    draft.put_copy(server_paths::agent_package(server_paths::kX86), command.package_x86);
    draft.put_text(server_paths::kAgentVersion, command.version + "\n");
  });
}

}  // namespace publish
