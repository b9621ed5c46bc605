// Replacing a file by a new version so that nothing can lose it.
#pragma once

#include <string>

namespace utility {

/// Replaces the contents of @a path by @a contents. A crash, a power cut or a full disk at any
/// moment leaves the old or the new contents, whole.
///
/// The new version is written to a file without a name in the same directory, with the mode and
/// owner of the old one, flushed to disk, named `path + ".new"` and renamed over @a path. Only a
/// kill between the last two steps leaves that one name behind; the next call removes it. Where
/// unnamed files cannot be had or named (a file system without them, no /proc), the new version has
/// that name from the start. Where @a path is a symbolic link, its target is replaced and the link
/// stays. A file that did not exist is created with the permissions of any new file.
///
/// A file that is a mount point cannot be renamed over: it alone is written in place, after its
/// space has been reserved. A kill between two steps leaves it whole, with line feeds behind its
/// text where the new version is shorter. A power cut, a kill or an I/O error in the middle of the
/// write can cut it: the new version then stands whole under the name above.
///
/// No lock is taken. When several processes replace a file at once, one of their versions stays,
/// whole; calls of the others may return false.
///
/// @param path  a file, existing or not, in an existing directory; a device is refused
/// @return true when the new contents are on disk. False when a step failed: the old contents are
///         unchanged and no new file is left. There are two exceptions: where the very last step
///         fails, the flush of the directory, the new contents are in place, but a power cut may
///         bring back the old; and the cut mount point above.
[[nodiscard]] bool replace_durably(const std::string& path, const std::string& contents);

}  // namespace utility
