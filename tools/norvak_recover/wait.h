// Waiting for something that no signal announces.
#pragma once

#include <functional>

namespace recover {

/// Asks @a condition ten times a second until it holds, at most @a seconds.
/// @return whether it held in the end
[[nodiscard]] bool wait_until(int seconds, const std::function<bool()>& condition);

}  // namespace recover
