#include "preview_output.h"

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "common/command_line.h"
#include "table.h"

namespace host {

namespace {

using tools::Color;
using tools::printable;

constexpr std::size_t kRunWidth = 17;
constexpr std::size_t kPartWidth = 16;

/// What a run would do, in words.
const char* run_text(Outcome outcome) {
  switch (outcome) {
    case Outcome::kUpdated:
      return "would install";
    case Outcome::kNothingToDo:
      return "nothing to do";
    case Outcome::kRefused:
      return "would refuse";
    case Outcome::kFailed:
      return "would fail";
    case Outcome::kUnfinished:
      return "would abort";
    case Outcome::kRunning:
    case Outcome::kUnknown:
      break;
  }
  return "undecided";
}

Color run_color(Outcome outcome) {
  switch (outcome) {
    case Outcome::kUpdated:
    case Outcome::kNothingToDo:
      return Color::kGreen;
    case Outcome::kRefused:
      return Color::kYellow;
    case Outcome::kFailed:
    case Outcome::kUnfinished:
      return Color::kRed;
    case Outcome::kRunning:
    case Outcome::kUnknown:
      break;
  }
  return Color::kBlue;
}

std::string or_dash(const std::string& text) { return text.empty() ? "-" : printable(text); }

}  // namespace

void print_preview_table(std::ostream& out, const tools::Painter& paint, const Preview& preview) {
  out << paint(Color::kBold, padded("TYPE", kTypeWidth) + padded("A RUN NOW", kRunWidth) + "REASON")
      << "\n";
  for (const TypePreview& type : preview.types) {
    out << padded(type_name(type.type), kTypeWidth)
        << paint(run_color(type.outcome), padded(run_text(type.outcome), kRunWidth))
        << printable(type.reason) << "\n";
    for (const Part& part : type.parts) {
      out << "  " << padded(part.name, kPartWidth) << "installed " << or_dash(part.installed)
          << ", offered " << or_dash(part.offered) << "\n";
    }
  }
  if (!preview.findings.empty()) out << "\n";
  for (const tools::Finding& finding : preview.findings) {
    tools::print_finding(out, paint, finding);
  }
}

void print_preview_json(std::ostream& out, const HostFacts& facts, const Preview& preview) {
  nlohmann::json json = host_json(facts);
  json["types"] = nlohmann::json::array();
  for (const TypePreview& type : preview.types) {
    nlohmann::json parts = nlohmann::json::array();
    for (const Part& part : type.parts) {
      parts.push_back({{"name", part.name},
                       {"installed", part.installed},
                       {"offered", part.offered},
                       {"outcome", outcome_name(part.outcome)}});
    }
    json["types"].push_back({{"type", type_name(type.type)},
                             {"outcome", outcome_name(type.outcome)},
                             {"reason", type.reason},
                             {"first_line", nullptr},
                             {"last_line", nullptr},
                             {"lines", nlohmann::json::array()},
                             {"leftovers", type.leftovers},
                             {"parts", std::move(parts)}});
  }
  json["answers"] = nlohmann::json::array();
  for (const Answer& answer : preview.answers) {
    json["answers"].push_back({{"url", answer.url},
                               {"result", answer.result},
                               {"http_status", answer.http_status},
                               {"bytes", answer.bytes}});
  }
  json["findings"] = preview.findings;
  tools::print_json(out, json);
}

}  // namespace host
