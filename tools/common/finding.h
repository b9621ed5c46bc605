// Findings: what a tool reports about a host or a server tree, like the messages of a linter.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "common/terminal.h"

namespace tools {

/// In ascending order, so that findings can be compared.
enum class Severity { kNote, kWarning, kError };

struct Finding {
  std::string code;  ///< stable, for scripts: lower-case words joined by "-"
  Severity severity = Severity::kNote;
  std::string file;  ///< the file or address concerned; may be empty
  std::string text;  ///< what is wrong and why it matters, as a sentence
  std::string fix;   ///< what to do about it, as a sentence; may be empty
};

/// "note", "warning" or "error".
[[nodiscard]] const char* severity_name(Severity severity);

/// An object with the members code, severity, file, text and fix.
void to_json(nlohmann::json& json, const Finding& finding);

/// Prints a finding for people: "severity: file: text [code]", and the fix in a second line.
void print_finding(std::ostream& out, const Painter& paint, const Finding& finding);

}  // namespace tools
