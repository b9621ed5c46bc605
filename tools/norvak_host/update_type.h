// The four kinds of update.
#pragma once

#include <array>
#include <cstddef>

namespace host {

/// The values are those of the updater's first argument.
enum class UpdateType { kSoft, kKernel, kNginx, kRules };

inline constexpr std::array<UpdateType, 4> kUpdateTypes = {UpdateType::kSoft, UpdateType::kKernel,
                                                           UpdateType::kNginx, UpdateType::kRules};

[[nodiscard]] constexpr std::size_t index(UpdateType type) {
  return static_cast<std::size_t>(type);
}

/// "soft", "kernel", "nginx" or "rules": its name on the command line and in all output.
[[nodiscard]] constexpr const char* type_name(UpdateType type) {
  constexpr const char* kNames[] = {"soft", "kernel", "nginx", "rules"};
  return kNames[index(type)];
}

}  // namespace host
