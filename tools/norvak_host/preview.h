// What a run of the updater would do now.
#pragma once

#include <string>
#include <vector>

#include "common/finding.h"
#include "host_facts.h"
#include "identify.h"
#include "status.h"
#include "update_type.h"

namespace host {

/// A thing that a run compares: the agent's version, a kernel module, the rules or the web server
/// program.
struct Part {
  std::string name;
  std::string installed;  ///< version, digest or identification; empty if there is none
  std::string offered;    ///< likewise; empty if it could not be downloaded
  Outcome outcome;        ///< kUnknown also if the run would end before it
};

/// What the server answered to one request.
struct Answer {
  std::string url;
  int result;        ///< libcurl's result code
  long http_status;  ///< 0 without an HTTP reply
  std::size_t bytes;
};

struct TypePreview {
  UpdateType type;
  Outcome outcome = Outcome::kUnknown;  ///< that of the run; never kRunning
  std::string reason;
  std::vector<Part> parts;
  std::vector<std::string> leftovers;
};

struct PreviewOptions {
  std::vector<UpdateType> types = {UpdateType::kSoft, UpdateType::kKernel, UpdateType::kRules};
  std::string nginx_version;    ///< the updater's second argument for the type nginx
  std::string nginx_word_size;  ///< its third argument
  long timeout = 30;            ///< seconds, for each transfer
};

struct Preview {
  std::vector<TypePreview> types;
  std::vector<Answer> answers;
  std::vector<tools::Finding> findings;
};

/// Follows the steps of a run of each type up to its first change, with the updater's own
/// functions, and checks what the rest of the run needs. Downloads into unnamed temporary files.
[[nodiscard]] Preview preview_updates(const HostFacts& facts, const Settings& settings,
                                      const PreviewOptions& options);

/// Whether everything was decided and no error was found.
[[nodiscard]] bool is_clean(const Preview& preview);

/// Whether some run would install something.
[[nodiscard]] bool has_update(const Preview& preview);

}  // namespace host
