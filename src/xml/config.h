// Access to the settings in the agent's configuration file, config.xml: `var` elements with a
// "name" and a "value" attribute.
#pragma once

#include <string>

namespace config {

inline constexpr char kUpdateHost[] = "update_host";
inline constexpr char kUpdateType[] = "update_type";
inline constexpr char kVersion[] = "version";
inline constexpr char kKernelUpdateHost[] = "kernel_update_host";
inline constexpr char kNginxUpdateHost[] = "nginx_update_host";
/// All settings that the updater reads.
inline constexpr const char* kSettingNames[] = {kUpdateHost, kUpdateType, kVersion,
                                                kKernelUpdateHost, kNginxUpdateHost};

/// The elements that hold the settings, and their two attributes.
inline constexpr char kSettings[] = "//norvak/Process/Data/var";
inline constexpr char kName[] = "name";
inline constexpr char kValue[] = "value";

/// Looks up the first setting called @a name (case-sensitive) in document order. Every call reads
/// the file.
///
/// @param[out] value  changed only if the setting exists; empty if it has no "value" attribute
/// @return 0 if the file could be loaded, whether or not it contains the setting; -1 otherwise
[[nodiscard]] int get_config_var(const std::string& config_path, const char* name,
                                 std::string& value);

/// The same for callers that treat a missing setting and a missing file alike.
/// @return the value; empty if the file cannot be loaded or lacks the setting
[[nodiscard]] std::string get_config_var(const std::string& config_path, const char* name);

}  // namespace config
