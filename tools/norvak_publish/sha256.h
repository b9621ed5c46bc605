// SHA-256 digests of files.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "parallel.h"

namespace publish {

/// Digests of @a files as 64 lower-case hexadecimal digits, in the same order. Uses all processors
/// and a fixed amount of memory. @a progress is called by the calling thread only.
/// @throws Failure  a file cannot be read
[[nodiscard]] std::vector<std::string> sha256(const std::vector<std::filesystem::path>& files,
                                              const Progress& progress);

}  // namespace publish
