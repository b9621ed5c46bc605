// What the tools report about a host or a server tree.
#pragma once

#include <string>

namespace tools {

enum class Severity {
  kNote,
  kWarning,  ///< some host could be hurt
  kError,    ///< some host would be hurt
};

/// One observation. Codes are stable: scripts may rely on them.
struct Finding {
  std::string code;
  Severity severity = Severity::kNote;
  std::string file;  ///< the path or URL concerned
  std::string why;   ///< what is wrong and why it matters
  std::string fix;
};

}  // namespace tools
