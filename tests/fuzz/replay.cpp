// Runs a fuzz target without libFuzzer on the given files and directories of files, so that the
// corpus is an ordinary test.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support.h"

namespace {

namespace fs = std::filesystem;

/// The file @a path, or the files directly in the directory @a path, sorted.
std::vector<std::string> inputs_at(const char* path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<std::string> inputs;
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    inputs.push_back(entry.path().string());
  }
  std::sort(inputs.begin(), inputs.end());
  return inputs;
}

/// Runs the target on one input. Its name, printed first, identifies an input that crashes.
void run(const std::string& path) {
  (void)std::puts(path.c_str());
  (void)std::fflush(stdout);
  const std::string bytes = fuzz::read_file(path);
  // Copied to a buffer of its exact size, so that the sanitizers see every read past its end.
  const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
  (void)LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

// The default for targets without initialisation.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  return 0;
}

int main(int argc, char** argv) {
  (void)LLVMFuzzerInitialize(&argc, &argv);
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const std::string& input : inputs_at(argv[i])) {
      run(input);
      ++count;
    }
  }
  (void)std::printf("%zu inputs\n", count);
  return count == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
