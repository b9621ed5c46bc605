#include "run_record.h"

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "common/state_file.h"
#include "utility/cstr.h"
#include "utility/file.h"

namespace recover {

namespace {

constexpr char kFile[] = "run";
constexpr char kType[] = "type";
constexpr char kAgentRan[] = "agent_ran";
constexpr char kBootTime[] = "boot_time";
constexpr char kVersion[] = "version";
constexpr char kUpdateType[] = "update_type";
constexpr char kMode[] = "nginx_mode";

}  // namespace

std::optional<RunRecord> read_run_record() {
  const std::optional<nlohmann::json> json = tools::read_state_file(kFile);
  if (!json) return std::nullopt;
  RunRecord record;
  const std::string name = tools::state_text(*json, kType);
  for (const host::UpdateType type : host::kUpdateTypes) {
    if (name == host::type_name(type)) record.type = type;
  }
  const auto agent_ran = json->find(kAgentRan);
  record.agent_ran = agent_ran != json->end() && *agent_ran == true;
  const auto boot_time = json->find(kBootTime);
  if (boot_time != json->end() && boot_time->is_number()) {
    record.boot_time = boot_time->get<std::time_t>();
  }
  record.version = tools::state_text(*json, kVersion);
  record.update_type = tools::state_text(*json, kUpdateType);
  const auto mode = json->find(kMode);
  if (mode != json->end() && mode->is_number_unsigned()) record.mode = mode->get<mode_t>();
  return record;
}

bool write_run_record(const RunRecord& record) {
  nlohmann::json json = {{kType, host::type_name(record.type)},
                         {kAgentRan, record.agent_ran},
                         {kBootTime, record.boot_time},
                         {kVersion, record.version},
                         {kUpdateType, record.update_type}};
  if (record.mode) json[kMode] = *record.mode;
  return tools::write_state_file(kFile, json);
}

void remove_run_record() { tools::remove_state_file(kFile); }

std::time_t boot_time() {
  constexpr int kMaxLineBytes = 256;
  constexpr std::string_view kName = "btime ";
  utility::LineReader lines("/proc/stat", kMaxLineBytes);
  std::string line;
  while (lines && lines.next(line)) {
    if (line.compare(0, kName.size(), kName) == 0) {
      return static_cast<std::time_t>(utility::CStr::atoll(line.substr(kName.size())));
    }
  }
  return 0;
}

bool was_rebooted_since(const RunRecord& record) {
  constexpr std::time_t kJitterSeconds = 10;
  return std::abs(boot_time() - record.boot_time) > kJitterSeconds;
}

}  // namespace recover
