// Replacing the contents of a file without losing the file.
#pragma once

#include <string>

namespace utility {

/// Replaces the contents of @a path with @a contents and keeps everything else: owner, mode and
/// extended attributes, ACL and security label included. Symbolic links are followed and stay.
///
/// The new version is written to a new file in the same directory and renamed over the old one, so
/// that a crash, a power cut or a full disk leaves the old or the new contents. The new file has no
/// name until it is on disk if the file system supports that. A kill can leave it under a name of
/// its own, @a path with a dot and six random letters; later calls do not touch such a file.
///
/// If that is impossible, the file is written in place, after its space has been reserved. The
/// reasons are: it is a mount point, no file can be created beside it or renamed, the new file
/// cannot have the owner, the mode and the attributes of the old one, /proc is not mounted, or the
/// disk has no room for both. A kill, a power cut or an I/O error during that write can leave the
/// file truncated, with a mixture of both versions, or with line feeds after the text. A file that
/// does not exist is also written in place, with default permissions.
///
/// @param path  a regular file in an existing directory; it need not exist
/// @return true if the new contents are on disk. If false, the old contents are unchanged, with two
///         exceptions: an error during a write in place, as above, and a failed flush of the
///         directory after the rename, when a power cut can bring back the old contents.
[[nodiscard]] bool replace_durably(const std::string& path, const std::string& contents);

/// Whether @a name has the form of the names under which a kill can leave a new version of @a file.
[[nodiscard]] bool is_new_version_name(const std::string& name, const std::string& file);

}  // namespace utility
