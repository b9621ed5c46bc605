// Access to the settings of the agent's configuration file, config.xml: `var` elements with a
// "name" and a "value" attribute.
#pragma once

#include <string>

namespace config {

inline constexpr char kUpdateHost[] = "update_host";
inline constexpr char kUpdateType[] = "update_type";
inline constexpr char kVersion[] = "version";
inline constexpr char kKernelUpdateHost[] = "kernel_update_host";
inline constexpr char kNginxUpdateHost[] = "nginx_update_host";

/// The elements that hold the settings, and their two attributes.
inline constexpr char kSettings[] = "//norvak/Process/Data/var";
inline constexpr char kName[] = "name";
inline constexpr char kValue[] = "value";

/// Looks up the first setting called @a name (case-sensitive) in document order. The file is read
/// afresh at every call.
///
/// @param[out] value  changed only when the setting exists; without a "value" attribute it is empty
/// @return 0 when the file could be loaded, whether or not it holds the setting; -1 otherwise
[[nodiscard]] int get_config_var(const std::string& config_path, const char* name,
                                 std::string& value);

/// As above, for callers to whom a missing setting and a missing file are the same.
/// @return the value; empty when the file cannot be loaded or does not hold the setting
[[nodiscard]] std::string get_config_var(const std::string& config_path, const char* name);

}  // namespace config
