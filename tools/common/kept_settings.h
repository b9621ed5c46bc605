// The settings that an interrupted agent update could not carry over. norvak_recover keeps their
// values, norvak_host reports them.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tools {

/// The settings as they were before an agent update that was interrupted.
struct KeptSettings {
  std::string version;
  std::string update_type;
  std::string offered_version;  ///< the one that was being installed; empty if it is not known
};

/// A setting of config.xml that is not what it would be without the interruption.
struct LostSetting {
  std::string name;
  std::string expected;
  std::string found;
};

/// The settings in config.xml that are wrong: `update_type`, if it is not the kept one, and
/// `version`, if it is neither the kept one nor the offered one nor newer than the offered one.
/// Empty if config.xml cannot be read.
[[nodiscard]] std::vector<LostSetting> lost_settings(const KeptSettings& kept,
                                                     const std::string& config_path);

/// Path of the file that keeps the settings.
[[nodiscard]] std::string kept_settings_path();

/// @return nothing if no settings are kept
[[nodiscard]] std::optional<KeptSettings> read_kept_settings();

/// Keeps @a kept, and waits until it is on disk.
/// @return false if that failed
[[nodiscard]] bool write_kept_settings(const KeptSettings& kept);

/// Removes what is kept, once no setting is lost any more.
void remove_kept_settings();

}  // namespace tools
