// The coverage of a fleet as a web page.
#pragma once

#include <filesystem>
#include <string>

#include "coverage.h"

namespace publish {

/// One page without references to other files: a table of the directories, worst first. Readable on
/// a phone and in print.
/// @param time  when the tree was read, for people
[[nodiscard]] std::string coverage_page(const Coverage& coverage, const std::string& time);

/// Writes the page to @a path atomically: readers see the old page or the new one.
/// @throws Failure
void write_coverage_page(const Coverage& coverage, const std::filesystem::path& path);

}  // namespace publish
