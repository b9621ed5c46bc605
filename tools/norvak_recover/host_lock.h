// The lock that this package's units and cron jobs hold during each run.
#pragma once

#include "utility/file.h"

namespace recover {

/// Waits for the host lock, at most 20 minutes. It is held until the descriptor is closed.
/// @return an empty descriptor if the lock stays taken or its file cannot be opened
[[nodiscard]] utility::Descriptor take_host_lock();

}  // namespace recover
