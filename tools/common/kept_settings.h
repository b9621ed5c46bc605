// The settings that an interrupted agent update could not carry over. norvak_recover notes them,
// norvak_host reports them.
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

/// What is wrong with the settings in config.xml: `update_type` is not the kept one, or `version`
/// is neither the kept nor the offered one nor newer than that. Empty if all is well or config.xml
/// cannot be read.
[[nodiscard]] std::vector<LostSetting> lost_settings(const KeptSettings& kept,
                                                     const std::string& config_path);

/// The path of the note, to be shown to people.
[[nodiscard]] std::string kept_settings_path();

/// Reads the note of the last interrupted update.
/// @return nothing if there is none
[[nodiscard]] std::optional<KeptSettings> read_kept_settings();

/// Writes the note, and waits until it is on disk.
/// @return false if that failed
[[nodiscard]] bool write_kept_settings(const KeptSettings& kept);

/// Removes the note: all settings are as they should be.
void remove_kept_settings();

}  // namespace tools
