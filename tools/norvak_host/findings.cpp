#include "findings.h"

#include <algorithm>

namespace host {

using tools::Finding;

void Findings::add(const char* code, tools::Severity severity, const std::string& file,
                   const std::string& text, const std::string& fix) {
  const bool known = std::any_of(findings_.begin(), findings_.end(), [&](const Finding& finding) {
    return finding.code == code && finding.file == file;
  });
  if (!known) findings_.push_back({code, severity, file, text, fix});
}

}  // namespace host
