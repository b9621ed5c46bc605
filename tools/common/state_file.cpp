#include "common/state_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "common/command_line.h"
#include "utility/durable_file.h"

namespace tools {

namespace {

constexpr mode_t kStateDirMode = 0755;

}  // namespace

std::string state_path(const char* name) { return std::string(kStateDir) + "/" + name; }

std::optional<nlohmann::json> read_state_file(const char* name) {
  std::ifstream file(state_path(name));
  constexpr bool kNoExceptions = false;
  nlohmann::json json = nlohmann::json::parse(file, nullptr, kNoExceptions);
  if (!json.is_object()) return std::nullopt;
  return json;
}

std::string state_text(const nlohmann::json& json, const char* name) {
  const auto member = json.find(name);
  return member != json.end() && member->is_string() ? member->get<std::string>() : "";
}

bool write_state_file(const char* name, const nlohmann::json& json) {
  std::ostringstream text;
  print_json(text, json);
  (void)::mkdir(kStateDir, kStateDirMode);  // the write reports a missing directory
  return utility::replace_durably(state_path(name), text.str());
}

void remove_state_file(const char* name) { (void)::unlink(state_path(name).c_str()); }

}  // namespace tools
