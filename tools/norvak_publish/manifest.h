// The digests of a release's files, which reveal changes that were made in place.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "sha256.h"

namespace publish {

/// Path below the release's root (no leading slash) to SHA-256 digest.
using Manifest = std::map<std::string, std::string>;

/// Computes the digests of all files below @a root.
/// @throws Failure  something cannot be read, or is neither a directory nor a regular file
[[nodiscard]] Manifest scan_release(const std::filesystem::path& root, const Progress& progress);

/// Entries at the top of a tree that norvak_publish uses itself and does not publish.
inline constexpr char kReleasesDirectory[] = "releases";
inline constexpr char kInPlaceDraft[] = ".norvak_publish";

/// Paths of all published files below @a root, relative to it and sorted.
/// @throws Failure  as scan_release; also for a name with a control character or a backslash, which
///         a manifest cannot hold
[[nodiscard]] std::vector<std::string> list_files(const std::filesystem::path& root);

/// The manifest in the file @a path, in the format of sha256sum.
/// @throws Failure  it cannot be read or has another format
[[nodiscard]] Manifest read_manifest(const std::filesystem::path& path);

/// The text of a manifest file: `cd RELEASE && sha256sum -c MANIFEST` understands it.
[[nodiscard]] std::string manifest_text(const Manifest& manifest);

/// The paths that are missing, added or different in @a found, sorted.
[[nodiscard]] std::vector<std::string> differences(const Manifest& published,
                                                   const Manifest& found);

}  // namespace publish
