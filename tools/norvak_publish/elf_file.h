// What an ELF file, a kernel module or a program, says about where it runs.
#pragma once

#include <optional>
#include <string>

namespace publish {

enum class Processor { kX64, kX86, kOther };

struct ElfFile {
  Processor processor = Processor::kOther;
  /// A kernel module's kernel, as `uname -r` prints it on the hosts that load it: the first word of
  /// `vermagic`. Empty for files without one, such as programs.
  std::string kernel_release;
};

/// Reads the head of an ELF file and, if there is one, its section `.modinfo`; the rest of the file
/// is not read. Several threads may call it at the same time.
/// @return nothing if the file cannot be read or is not a complete ELF file
[[nodiscard]] std::optional<ElfFile> read_elf(const std::string& path);

}  // namespace publish
