// What norvak_host prints about texts from logs, servers and configurations.
// Input: log line|path|text of a finding|setting|reason
#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "identify.h"
#include "preview_output.h"
#include "status_output.h"
#include "support.h"

namespace {

using tools::Painter;

/// Whether a terminal would show the text as it is.
bool is_harmless(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); });
}

void check_text(const std::ostringstream& out) {
  fuzz::check(is_harmless(out.str()), "no control byte reaches a terminal");
  fuzz::check(out.str().back() == '\n', "the last line is whole");
}

void check_one_line(const std::ostringstream& out) {
  check_text(out);
  fuzz::check(out.str().find('\n') + 1 == out.str().size(), "there is one line");
}

nlohmann::json check_json(const std::ostringstream& out) {
  check_one_line(out);
  nlohmann::json json = nlohmann::json::parse(out.str(), nullptr, false);
  fuzz::check(!json.is_discarded(), "the output is JSON");
  return json;
}

void check_plugin(const host::Status& status) {
  std::ostringstream out;
  host::print_status_plugin(out, status, {});
  check_one_line(out);
  const std::string text = out.str();
  fuzz::check(std::count(text.begin(), text.end(), '|') == 1,
              "one bar separates text and performance data");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Fields fields(data, size);
  const std::string line = fields.next();
  const std::string path = fields.next();
  const std::string finding = fields.next();
  const std::string setting = fields.next();
  const std::string reason = fields.rest();

  host::HostFacts facts;
  facts.install_dir = path;
  facts.family_marker = path;
  facts.machine = reason;
  facts.kernel_release = line;
  const tools::Finding found = {finding, tools::Severity::kError, path, finding, finding};

  host::Status status;
  status.types.resize(1);
  status.types[0] = {host::UpdateType::kSoft,
                     host::Outcome::kFailed,
                     host::Level::kCritical,
                     reason,
                     0,
                     1,
                     {line},
                     {path}};
  status.findings = {found};
  check_plugin(status);

  std::ostringstream status_json;
  host::print_status_json(status_json, facts, status);
  (void)check_json(status_json);
  std::ostringstream status_table;
  host::print_status_table(status_table, Painter(false), status);
  check_text(status_table);

  host::Preview preview;
  preview.types.push_back({host::UpdateType::kSoft,
                           host::Outcome::kFailed,
                           reason,
                           {{"agent", setting, line, host::Outcome::kFailed}},
                           {path}});
  preview.answers.push_back({setting, 0, 200, 0});
  preview.findings = {found};
  std::ostringstream preview_json;
  host::print_preview_json(preview_json, facts, preview);
  (void)check_json(preview_json);
  std::ostringstream preview_table;
  host::print_preview_table(preview_table, Painter(false), preview);
  check_text(preview_table);

  host::Settings settings = host::read_settings("/nonexistent");
  settings.values.begin()->second = setting;
  std::ostringstream identity_json;
  host::print_identity_json(identity_json, facts, settings);
  (void)check_json(identity_json);
  std::ostringstream identity;
  host::print_identity(identity, Painter(false), facts, settings);
  check_text(identity);
  return 0;
}
