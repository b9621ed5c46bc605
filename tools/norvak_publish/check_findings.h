// The kinds of findings about a server tree. docs/server-layout.md explains each.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "common/finding.h"

namespace publish {

using Findings = std::vector<tools::Finding>;

/// What findings of one code have in common. Scripts rely on the codes: a code keeps its meaning.
struct FindingKind {
  const char* code;
  tools::Severity severity;
};

namespace findings {

// Files and directories.
inline constexpr FindingKind kMissing{"missing", tools::Severity::kError};
inline constexpr FindingKind kUnreadable{"unreadable", tools::Severity::kError};
inline constexpr FindingKind kLeftover{"leftover", tools::Severity::kWarning};
inline constexpr FindingKind kNamesDifferInCase{"names-differ-in-case", tools::Severity::kWarning};
inline constexpr FindingKind kUnrequested{"unrequested", tools::Severity::kNote};

// Digest lists of modules and rules.
inline constexpr FindingKind kListFormat{"list-format", tools::Severity::kError};
inline constexpr FindingKind kListDigest{"list-digest", tools::Severity::kError};

// The agent's version file.
inline constexpr FindingKind kVersionLines{"version-lines", tools::Severity::kError};
inline constexpr FindingKind kVersionLength{"version-length", tools::Severity::kError};
inline constexpr FindingKind kVersionText{"version-text", tools::Severity::kError};
inline constexpr FindingKind kVersionNumber{"version-number", tools::Severity::kError};
inline constexpr FindingKind kVersionDots{"version-dots", tools::Severity::kWarning};
inline constexpr FindingKind kVersionOrder{"version-order", tools::Severity::kError};
inline constexpr FindingKind kVersionFieldCount{"version-field-count", tools::Severity::kWarning};

// Agent packages.
inline constexpr FindingKind kPackageDamaged{"package-damaged", tools::Severity::kError};
inline constexpr FindingKind kPackageScript{"package-script", tools::Severity::kError};
inline constexpr FindingKind kPackagePath{"package-path", tools::Severity::kError};
inline constexpr FindingKind kPackageConfig{"package-config", tools::Severity::kError};
inline constexpr FindingKind kPackageVersion{"package-version", tools::Severity::kError};
inline constexpr FindingKind kPackageVersionUnknown{"package-version-unknown",
                                                    tools::Severity::kNote};

// Kernel modules.
inline constexpr FindingKind kModuleElf{"module-elf", tools::Severity::kError};
inline constexpr FindingKind kModuleKernel{"module-kernel", tools::Severity::kError};
inline constexpr FindingKind kModuleBuild{"module-build", tools::Severity::kWarning};
inline constexpr FindingKind kKernelDirectory{"kernel-directory", tools::Severity::kWarning};
inline constexpr FindingKind kKernelMissing{"kernel-missing", tools::Severity::kError};

// Web server builds.
inline constexpr FindingKind kBuildElf{"build-elf", tools::Severity::kError};
inline constexpr FindingKind kIdentificationEmpty{"identification-empty", tools::Severity::kError};
inline constexpr FindingKind kIdentificationLong{"identification-long", tools::Severity::kWarning};
inline constexpr FindingKind kIdentificationDuplicate{"identification-duplicate",
                                                      tools::Severity::kError};

// Rules.
inline constexpr FindingKind kRulesXml{"rules-xml", tools::Severity::kError};

// A server, as a host sees it.
inline constexpr FindingKind kTransfer{"transfer", tools::Severity::kError};
inline constexpr FindingKind kHttpStatus{"http-status", tools::Severity::kError};
inline constexpr FindingKind kErrorPage{"error-page", tools::Severity::kError};
inline constexpr FindingKind kNotPublished{"not-published", tools::Severity::kNote};
inline constexpr FindingKind kBuildsNotChecked{"builds-not-checked", tools::Severity::kNote};

}  // namespace findings

/// @param file  relative to the tree, without a leading slash
inline tools::Finding make_finding(const FindingKind& kind, std::string file, std::string text,
                                   std::string fix) {
  return {kind.code, kind.severity, std::move(file), std::move(text), std::move(fix)};
}

}  // namespace publish
