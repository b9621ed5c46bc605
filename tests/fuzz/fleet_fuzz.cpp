// The reader of fleets, CSV and JSON.
// Input: the file
#include <set>
#include <sstream>
#include <vector>

#include "failure.h"
#include "fleet.h"
#include "support.h"

namespace {

using publish::FleetKernel;

std::vector<FleetKernel> read(const std::string& text) {
  std::istringstream input(text);
  return publish::read_fleet(input, "fleet");
}

/// The kernels as a CSV file.
std::string csv(const std::vector<FleetKernel>& kernels) {
  std::string text = "distribution,machine,release,count\n";
  for (const FleetKernel& kernel : kernels) {
    text += kernel.distribution + ",\"" + kernel.machine + "\",\"" + kernel.release + "\"," +
            std::to_string(kernel.hosts) + "\r\n";
  }
  return text;
}

/// Whether the texts could be separated by commas: JSON and quotes allow more.
bool fits_csv(const std::vector<FleetKernel>& kernels) {
  for (const FleetKernel& kernel : kernels) {
    if ((kernel.machine + kernel.release).find(',') != std::string::npos) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<FleetKernel> kernels;
  try {
    kernels = read({reinterpret_cast<const char*>(data), size});
  } catch (const publish::Failure& failure) {
    fuzz::check(std::string(failure.what()).rfind("fleet, line ", 0) == 0,
                "a message names the line");
    return 0;
  }
  std::set<std::string> seen;
  for (const FleetKernel& kernel : kernels) {
    fuzz::check(
        seen.insert(kernel.distribution + "," + kernel.machine + "," + kernel.release).second,
        "each kernel occurs once");
    fuzz::check((kernel.machine + kernel.release).find_first_of("/ \n\r\t") == std::string::npos,
                "names are one word");
  }
  if (fits_csv(kernels)) {
    fuzz::check_equal(csv(read(csv(kernels))), csv(kernels), "what was read can be read again");
  }
  return 0;
}
