// Waiting by polling.
#pragma once

#include <functional>

namespace recover {

/// Evaluates @a condition ten times a second until it holds, for at most @a seconds.
/// @return whether it held in the end
[[nodiscard]] bool wait_until(int seconds, const std::function<bool()>& condition);

}  // namespace recover
