#include "status_output.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>

#include "common/command_line.h"
#include "table.h"
#include "utility/file.h"

namespace host {

namespace {

using tools::Color;
using tools::Painter;
using tools::printable;

Color level_color(Level level) {
  switch (level) {
    case Level::kOk:
      return Color::kGreen;
    case Level::kWarning:
      return Color::kYellow;
    case Level::kCritical:
      return Color::kRed;
    case Level::kUnknown:
      break;
  }
  return Color::kBlue;
}

const char* level_name(Level level) {
  constexpr const char* kNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
  return kNames[static_cast<std::size_t>(level)];
}

const char* agent_text(AgentState state) {
  switch (state) {
    case AgentState::kRunning:
      return "running";
    case AgentState::kDown:
      return "down";
    case AgentState::kUnknown:
      break;
  }
  return "unknown";
}

std::string local_time(const std::optional<std::time_t>& time) {
  if (!time) return "-";
  std::array<char, 32> text = {};
  std::tm local = {};
  if (::localtime_r(&*time, &local) == nullptr ||
      std::strftime(text.data(), text.size(), "%F %T", &local) == 0) {
    return "-";
  }
  return text.data();
}

constexpr std::size_t kOutcomeWidth = 15;
constexpr std::size_t kTimeWidth = 21;

}  // namespace

void print_status_table(std::ostream& out, const Painter& paint, const Status& status) {
  if (status.types.empty()) {
    out << "no run found\n";
  } else {
    out << paint(Color::kBold, padded("TYPE", kTypeWidth) + padded("OUTCOME", kOutcomeWidth) +
                                   padded("LAST LINE", kTimeWidth) + "REASON")
        << "\n";
  }
  for (const TypeStatus& type : status.types) {
    out << padded(type_name(type.type), kTypeWidth)
        << paint(level_color(type.level), padded(outcome_name(type.outcome), kOutcomeWidth))
        << padded(local_time(type.last_line), kTimeWidth) << printable(type.reason) << "\n";
  }
  out << "agent: " << agent_text(status.agent) << "\n";

  for (const TypeStatus& type : status.types) {
    if (type.level == Level::kOk && type.leftovers.empty()) continue;
    if (type.lines.empty() && type.leftovers.empty()) continue;
    out << "\n" << type_name(type.type) << ":\n";
    for (const std::string& line : type.lines) {
      std::string shown = line;
      std::replace(shown.begin(), shown.end(), '\t', ' ');
      out << "  " << printable(shown) << "\n";
    }
    for (const std::string& path : type.leftovers)
      out << "  left over: " << printable(path) << "\n";
  }
  if (!status.findings.empty()) out << "\n";
  for (const tools::Finding& finding : status.findings) tools::print_finding(out, paint, finding);
}

void print_status_json(std::ostream& out, const HostFacts& facts, const Status& status) {
  nlohmann::json json = host_json(facts);
  json["agent"] = agent_text(status.agent);
  json["types"] = nlohmann::json::array();
  for (const TypeStatus& type : status.types) {
    nlohmann::json entry = {{"type", type_name(type.type)}, {"outcome", outcome_name(type.outcome)},
                            {"reason", type.reason},        {"first_line", nullptr},
                            {"last_line", nullptr},         {"lines", type.lines},
                            {"leftovers", type.leftovers}};
    if (type.first_line) entry["first_line"] = *type.first_line;
    if (type.last_line) entry["last_line"] = *type.last_line;
    json["types"].push_back(std::move(entry));
  }
  json["findings"] = status.findings;
  tools::print_json(out, json);
}

void print_status_plugin(std::ostream& out, const Status& status, const StatusOptions& options) {
  std::ostringstream text;
  std::ostringstream data;
  const std::time_t now = std::time(nullptr);
  for (const TypeStatus& type : status.types) {
    text << (text.tellp() > 0 ? ", " : "") << type_name(type.type) << " "
         << outcome_name(type.outcome);
    if (type.level != Level::kOk) text << " (" << type.reason << ")";
    if (!type.last_line) continue;
    // 'label'=value;warn;crit;min
    data << " " << type_name(type.type)
         << "_age=" << std::max<std::time_t>(now - *type.last_line, 0) << "s;";
    if (options.max_age) data << *options.max_age;
    data << ";;0";
  }
  if (status.types.empty()) text << "no run found";
  std::string message = printable(text.str());
  std::replace(message.begin(), message.end(), '|', '/');  // the bar begins the performance data
  out << "NORVAK UPDATE " << level_name(worst_level(status)) << " - " << message;
  if (data.tellp() > 0) out << " |" << data.str();
  out << "\n";
}

std::string prometheus_metrics(const Status& status) {
  std::ostringstream out;
  out << "# HELP norvak_update_outcome Whether the last run of an update type had this outcome.\n"
         "# TYPE norvak_update_outcome gauge\n";
  for (const TypeStatus& type : status.types) {
    for (const Outcome outcome : kOutcomes) {
      out << "norvak_update_outcome{type=\"" << type_name(type.type) << "\",outcome=\""
          << outcome_name(outcome) << "\"} " << (type.outcome == outcome ? 1 : 0) << "\n";
    }
  }
  out << "# HELP norvak_update_last_run_timestamp_seconds Time of the last log line of the last "
         "run of an update type.\n"
         "# TYPE norvak_update_last_run_timestamp_seconds gauge\n";
  for (const TypeStatus& type : status.types) {
    if (!type.last_line) continue;
    out << "norvak_update_last_run_timestamp_seconds{type=\"" << type_name(type.type) << "\"} "
        << *type.last_line << "\n";
  }
  out << "# HELP norvak_agent_up Whether the agent's pid file names a live process.\n"
         "# TYPE norvak_agent_up gauge\n";
  if (status.agent != AgentState::kUnknown) {
    out << "norvak_agent_up " << (status.agent == AgentState::kRunning ? 1 : 0) << "\n";
  }
  return out.str();
}

bool replace_file(const std::string& path, const std::string& text) {
  constexpr mode_t kMode = 0644;
  std::string name = path + ".XXXXXX";  // not *.prom, which node_exporter would read
  utility::Descriptor file(::mkostemp(name.data(), O_CLOEXEC));
  if (!file) return false;
  if (::fchmod(file.get(), kMode) == 0 &&
      utility::write_all(file.get(), text.data(), text.size()) == text.size() && file.close() &&
      std::rename(name.c_str(), path.c_str()) == 0) {
    return true;
  }
  const int error = errno;
  (void)::unlink(name.c_str());
  errno = error;
  return false;
}

}  // namespace host
