// The findings of one command, without duplicates.
#pragma once

#include <string>
#include <vector>

#include "common/finding.h"

namespace host {

class Findings {
 public:
  /// Adds a finding, unless there is one with the same code and file.
  void add(const char* code, tools::Severity severity, const std::string& file,
           const std::string& text, const std::string& fix);

  void error(const char* code, const std::string& file, const std::string& text,
             const std::string& fix) {
    add(code, tools::Severity::kError, file, text, fix);
  }
  void warning(const char* code, const std::string& file, const std::string& text,
               const std::string& fix) {
    add(code, tools::Severity::kWarning, file, text, fix);
  }
  void note(const char* code, const std::string& file, const std::string& text,
            const std::string& fix) {
    add(code, tools::Severity::kNote, file, text, fix);
  }

  [[nodiscard]] const std::vector<tools::Finding>& all() const { return findings_; }

 private:
  std::vector<tools::Finding> findings_;
};

}  // namespace host
