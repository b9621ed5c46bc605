// The reader of agent packages, with arbitrary files.
// Input: the file
#include <algorithm>

#include "agent_package.h"
#include "agent_package_reader.h"
#include "support.h"

namespace {

constexpr char kFile[] = "/var/log/package.tar";
constexpr std::size_t kEndBytes = 1024;
constexpr std::size_t kMostNamed = 20;

bool ends_with_zero_blocks(const std::string& bytes) {
  return bytes.size() >= kEndBytes &&
         std::all_of(bytes.end() - kEndBytes, bytes.end(), [](char c) { return c == '\0'; });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::enter_private_directory();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  fuzz::write_file(kFile, bytes);
  const publish::AgentPackage package = publish::read_agent_package(kFile);
  fuzz::check(!package.has_end || ends_with_zero_blocks(bytes), "the end of an archive is zero");
  fuzz::check(package.has_script || (!package.version && !package.script_has_carriage_return),
              "only a script has a first line and a version");
  fuzz::check(!package.version || bytes.find(publish::kVersionMark) != std::string::npos,
              "a version has its mark");
  fuzz::check(package.outside.size() <= kMostNamed && package.configs.size() <= kMostNamed,
              "lists are short");
  return 0;
}
