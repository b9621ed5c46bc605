#include "common/kept_settings.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "common/state_file.h"
#include "version.h"
#include "xml/config.h"

namespace tools {

namespace {

constexpr char kFile[] = "kept_settings";
constexpr char kOffered[] = "offered_version";

bool is_newer(const std::string& version, const std::string& than) {
  try {
    return version::is_newer(version, than);
  } catch (const std::out_of_range&) {  // one of them is too short to be a version
    return false;
  }
}

bool is_expected_version(const KeptSettings& kept, const std::string& version) {
  return version == kept.version ||
         (!kept.offered_version.empty() &&
          (version == kept.offered_version || is_newer(version, kept.offered_version)));
}

}  // namespace

std::vector<LostSetting> lost_settings(const KeptSettings& kept, const std::string& config_path) {
  std::vector<LostSetting> lost;
  std::string version;
  if (config::get_config_var(config_path, config::kVersion, version) != 0) return lost;
  if (!is_expected_version(kept, version)) {
    const std::string& expected =
        kept.offered_version.empty() ? kept.version : kept.offered_version;
    lost.push_back({config::kVersion, expected, version});
  }
  const std::string update_type = config::get_config_var(config_path, config::kUpdateType);
  if (update_type != kept.update_type) {
    lost.push_back({config::kUpdateType, kept.update_type, update_type});
  }
  return lost;
}

std::string kept_settings_path() { return state_path(kFile); }

std::optional<KeptSettings> read_kept_settings() {
  const std::optional<nlohmann::json> json = read_state_file(kFile);
  if (!json) return std::nullopt;
  return KeptSettings{state_text(*json, config::kVersion), state_text(*json, config::kUpdateType),
                      state_text(*json, kOffered)};
}

bool write_kept_settings(const KeptSettings& kept) {
  return write_state_file(kFile, {{config::kVersion, kept.version},
                                  {config::kUpdateType, kept.update_type},
                                  {kOffered, kept.offered_version}});
}

void remove_kept_settings() { remove_state_file(kFile); }

}  // namespace tools
