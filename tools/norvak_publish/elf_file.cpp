#include "elf_file.h"

#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "utility/file.h"

namespace publish {

namespace {

constexpr char kModuleInfo[] = ".modinfo";
constexpr char kVermagic[] = "vermagic=";
/// Real modules have a few hundred bytes.
constexpr std::size_t kMostModuleInfo = std::size_t{1} << 20;

struct ElfEnd {
  void operator()(Elf* elf) const noexcept { (void)elf_end(elf); }
};
using ElfPtr = std::unique_ptr<Elf, ElfEnd>;

Processor processor(const GElf_Ehdr& head) {
  const int word_class = head.e_ident[EI_CLASS];
  if (word_class == ELFCLASS64 && head.e_machine == EM_X86_64) return Processor::kX64;
  if (word_class == ELFCLASS32 && head.e_machine == EM_386) return Processor::kX86;
  return Processor::kOther;
}

/// Whether the part [@a offset, @a offset + @a size) lies within the first @a end bytes.
bool fits(std::uint64_t offset, std::uint64_t size, std::uint64_t end) {
  return offset <= end && size <= end - offset;
}

/// Whether everything that the ELF header and its tables refer to lies within the file, which has
/// @a bytes bytes. That is not so in a truncated copy.
bool is_whole(Elf* elf, const GElf_Ehdr& head, std::uint64_t bytes) {
  std::size_t sections = 0;
  std::size_t segments = 0;
  if (elf_getshdrnum(elf, &sections) != 0 || elf_getphdrnum(elf, &segments) != 0) return false;
  // libelf reports no sections if their table is not entirely in the file.
  if (head.e_shoff != 0 && sections == 0) return false;
  if (!fits(head.e_shoff, std::uint64_t{head.e_shentsize} * sections, bytes)) return false;
  for (Elf_Scn* section = elf_nextscn(elf, nullptr); section != nullptr;
       section = elf_nextscn(elf, section)) {
    GElf_Shdr header = {};
    if (gelf_getshdr(section, &header) == nullptr) return false;
    if (header.sh_type != SHT_NOBITS && !fits(header.sh_offset, header.sh_size, bytes)) {
      return false;
    }
  }
  for (std::size_t i = 0; i < segments; ++i) {
    GElf_Phdr header = {};
    if (gelf_getphdr(elf, static_cast<int>(i), &header) == nullptr) return false;
    if (!fits(header.p_offset, header.p_filesz, bytes)) return false;
  }
  return true;
}

/// The section's bytes; empty if there is no such section.
std::string_view find_section(Elf* elf, const char* name) {
  std::size_t names = 0;
  if (elf_getshdrstrndx(elf, &names) != 0) return {};
  for (Elf_Scn* section = elf_nextscn(elf, nullptr); section != nullptr;
       section = elf_nextscn(elf, section)) {
    GElf_Shdr header = {};
    if (gelf_getshdr(section, &header) == nullptr) continue;
    const char* const found = elf_strptr(elf, names, header.sh_name);
    if (found == nullptr || std::strcmp(found, name) != 0) continue;
    if (header.sh_size > kMostModuleInfo) return {};
    const Elf_Data* const data = elf_rawdata(section, nullptr);
    if (data == nullptr || data->d_buf == nullptr) return {};
    return {static_cast<const char*>(data->d_buf), data->d_size};
  }
  return {};
}

/// The kernel in @a info, which holds "key=value" texts, each ended by a zero byte.
std::string kernel_release(std::string_view info) {
  const std::string_view key(kVermagic);
  while (!info.empty()) {
    const std::string_view entry = info.substr(0, info.find('\0'));
    if (entry.substr(0, key.size()) == key) {
      const std::string_view value = entry.substr(key.size());
      return std::string(value.substr(0, value.find(' ')));
    }
    info.remove_prefix(std::min(entry.size() + 1, info.size()));
  }
  return "";
}

}  // namespace

std::optional<ElfFile> read_elf(const std::string& path) {
  // libelf requires this call before all others: it states the version that the caller expects.
  static const bool is_usable = elf_version(EV_CURRENT) != EV_NONE;
  const utility::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file || !is_usable) return std::nullopt;
  // ELF_C_READ reads pieces, so memory does not grow with the file.
  const ElfPtr elf(elf_begin(file.get(), ELF_C_READ, nullptr));
  GElf_Ehdr head = {};
  if (!elf || elf_kind(elf.get()) != ELF_K_ELF || gelf_getehdr(elf.get(), &head) == nullptr) {
    return std::nullopt;
  }
  struct stat status = {};
  if (::fstat(file.get(), &status) != 0 ||
      !is_whole(elf.get(), head, static_cast<std::uint64_t>(status.st_size))) {
    return std::nullopt;
  }
  return ElfFile{processor(head), kernel_release(find_section(elf.get(), kModuleInfo))};
}

}  // namespace publish
