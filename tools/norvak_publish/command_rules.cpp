#include "commands.h"
#include "server_paths.h"
#include "utility/md5wrapper.h"

namespace publish {

ExitStatus run_rules(const PublishOptions& options, const std::filesystem::path& rules) {
  return publish_changes(options, [&](Draft& draft) {
    draft.put_copy(server_paths::kRules, rules);
    draft.put_text(server_paths::kRulesDigestList,
                   utility::md5wrapper().getHashFromFile(draft.file(server_paths::kRules)) + "\n");
  });
}

}  // namespace publish
