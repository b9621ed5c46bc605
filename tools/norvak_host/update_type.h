// The four kinds of update.
#pragma once

#include <array>
#include <cstddef>

namespace host {

/// In the order of the updater's first argument, whose value each one has.
enum class UpdateType { kSoft, kKernel, kNginx, kRules };

inline constexpr std::array<UpdateType, 4> kUpdateTypes = {UpdateType::kSoft, UpdateType::kKernel,
                                                           UpdateType::kNginx, UpdateType::kRules};

[[nodiscard]] constexpr std::size_t index(UpdateType type) {
  return static_cast<std::size_t>(type);
}

/// "soft", "kernel", "nginx" or "rules": the word for it on the command line and in all output.
[[nodiscard]] constexpr const char* type_name(UpdateType type) {
  constexpr const char* kNames[] = {"soft", "kernel", "nginx", "rules"};
  return kNames[index(type)];
}

}  // namespace host
