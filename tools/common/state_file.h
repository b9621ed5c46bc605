// Small JSON files in the state directory of this package. A crash leaves the old or the new text.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace tools {

/// Where the programs of this package keep data between runs.
inline constexpr char kStateDir[] = "/var/lib/norvak-update";

/// Path of the file @a name in the state directory.
[[nodiscard]] std::string state_path(const char* name);

/// @return the object in the file @a name; nothing if it is missing or contains anything else
[[nodiscard]] std::optional<nlohmann::json> read_state_file(const char* name);

/// The text member @a name of an object; empty if it has none.
[[nodiscard]] std::string state_text(const nlohmann::json& json, const char* name);

/// Replaces the file @a name and waits until it is on disk. Creates the state directory if it is
/// missing.
/// @return false if that failed
[[nodiscard]] bool write_state_file(const char* name, const nlohmann::json& json);

/// Removes the file @a name if it exists.
void remove_state_file(const char* name);

}  // namespace tools
