// The hosts to serve, as a list of their kernels.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace publish {

/// A kernel of the fleet, and how many hosts run it.
struct FleetKernel {
  std::string distribution;  ///< "centos", "suse" or "ubuntu"
  std::string machine;       ///< as `uname -m` prints it
  std::string release;       ///< as `uname -r` prints it
  std::uint64_t hosts = 0;
};

/// Reads a fleet: a CSV file with the header "distribution,machine,release,count", or the output of
/// `norvak_host identify --json`, one host per line. Empty lines are ignored.
///
/// Memory grows with the number of different kernels, not with the number of lines.
///
/// @param name  of the file, for messages
/// @return each kernel once, in the order in which they first occur
/// @throws Failure  names the first line that is not understood
[[nodiscard]] std::vector<FleetKernel> read_fleet(std::istream& input, const std::string& name);

/// As above, for the file @a path.
/// @throws Failure  as above, or the file cannot be read
[[nodiscard]] std::vector<FleetKernel> read_fleet_file(const std::string& path);

}  // namespace publish
