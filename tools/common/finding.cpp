#include "common/finding.h"

#include <nlohmann/json.hpp>
#include <ostream>

namespace tools {

namespace {

Color severity_color(Severity severity) {
  switch (severity) {
    case Severity::kError:
      return Color::kRed;
    case Severity::kWarning:
      return Color::kYellow;
    case Severity::kNote:
      break;
  }
  return Color::kBlue;
}

}  // namespace

const char* severity_name(Severity severity) {
  switch (severity) {
    case Severity::kError:
      return "error";
    case Severity::kWarning:
      return "warning";
    case Severity::kNote:
      break;
  }
  return "note";
}

void to_json(nlohmann::json& json, const Finding& finding) {
  json = {{"code", finding.code},
          {"severity", severity_name(finding.severity)},
          {"file", finding.file},
          {"text", finding.text},
          {"fix", finding.fix}};
}

void print_finding(std::ostream& out, const Painter& paint, const Finding& finding) {
  out << paint(severity_color(finding.severity), severity_name(finding.severity)) << ": ";
  if (!finding.file.empty()) out << printable(finding.file) << ": ";
  out << printable(finding.text) << " [" << printable(finding.code) << "]\n";
  if (!finding.fix.empty()) out << "  fix: " << printable(finding.fix) << "\n";
}

}  // namespace tools
