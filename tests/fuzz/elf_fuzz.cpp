// The reader of kernel modules and programs, with arbitrary files.
// Input: the file
#include "elf_file.h"
#include "support.h"

namespace {

constexpr char kFile[] = "/var/log/module.ko";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::enter_private_directory();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  fuzz::write_file(kFile, bytes);
  const auto elf = publish::read_elf(kFile);
  if (!elf) return 0;
  fuzz::check(bytes.compare(0, 4,
                            "\x7f"
                            "ELF") == 0,
              "only an ELF file is taken for one");
  const std::string& release = elf->kernel_release;
  fuzz::check(release.find_first_of(std::string(" \0", 2)) == std::string::npos,
              "a kernel release is one word");
  fuzz::check(release.empty() || bytes.find("vermagic=" + release) != std::string::npos,
              "the kernel release is in the file");
  return 0;
}
