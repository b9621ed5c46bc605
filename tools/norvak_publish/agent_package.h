// The format of the agent packages, shared by their writer and their reader.
#pragma once

#include "agent_files.h"

namespace publish {

/// The installation script, at the top of the package.
inline constexpr const char* kPackageScript = agent_files::kPackageScript + 1;  // without the slash

/// One of the script's first lines begins with this; the rest of that line is the version that the
/// package installs.
inline constexpr char kVersionMark[] = "# norvak-package-version: ";

}  // namespace publish
