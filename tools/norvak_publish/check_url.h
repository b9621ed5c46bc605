// The check of a server over HTTP, as a host sees it.
#pragma once

#include <string>

#include "check.h"

namespace publish {

/// Fetches what hosts request from the server at @a base into a private temporary directory, with
/// the updater's transfer options, and checks that. @a base is the address as config.xml has it.
///
/// Kernel modules are fetched only for the hosts of CheckOptions::fleet. Builds of the web server
/// program are not checked: only the hosts' command lines name their directories.
///
/// @throws Failure  no request was answered
[[nodiscard]] Findings check_url(const std::string& base, const CheckOptions& options);

}  // namespace publish
