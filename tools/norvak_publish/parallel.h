// Work on all processors.
#pragma once

#include <cstddef>
#include <functional>

namespace publish {

/// Called from time to time during long work; may be empty.
using Progress = std::function<void(std::size_t done, std::size_t total)>;

/// Calls @a work with each number below @a count, on all processors at the same time.
/// @param progress  is called by the calling thread only
/// @throws what @a work throws; the work then ends early
void in_parallel(std::size_t count, const std::function<void(std::size_t)>& work,
                 const Progress& progress);

}  // namespace publish
