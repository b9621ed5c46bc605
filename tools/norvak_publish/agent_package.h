// What the agent packages of norvak_publish look like, for those who build and those who read them.
#pragma once

#include "agent_files.h"

namespace publish {

/// The installation script, at the top of the package.
inline constexpr const char* kPackageScript = agent_files::kPackageScript + 1;  // without the slash

/// Begins the line of the script that holds the version which it records, up to the line's end. It
/// is among the script's first lines.
inline constexpr char kVersionMark[] = "# norvak-package-version: ";

}  // namespace publish
