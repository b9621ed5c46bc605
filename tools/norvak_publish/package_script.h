// The installation script that all agent packages share.
#pragma once

namespace publish {

/// The text of package_script.sh without its first line. It needs assignments before it: version,
/// need_kib, digests_md5.
extern const char kPackageScriptBody[];

}  // namespace publish
