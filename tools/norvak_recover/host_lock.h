// The lock under which all runs of this package's units and cron jobs take place.
#pragma once

#include "utility/file.h"

namespace recover {

/// Waits for the host lock, at most 20 minutes. It is held until the descriptor is closed.
/// @return no descriptor if it cannot be had
[[nodiscard]] utility::Descriptor take_host_lock();

}  // namespace recover
