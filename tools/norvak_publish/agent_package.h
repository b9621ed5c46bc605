// What the agent packages of norvak_publish look like, for those who build and those who read them.
#pragma once

namespace publish {

/// The installation script, at the top of the package.
inline constexpr char kPackageScript[] = "update";

/// Begins the line of the script that holds the version which it records, up to the line's end. It
/// is among the first lines.
inline constexpr char kVersionMark[] = "# norvak-package-version: ";

}  // namespace publish
