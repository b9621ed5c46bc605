#include "elf_file.h"

#include <elf.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <string>

#include "test_support.h"

namespace {

using publish::Processor;
using publish::read_elf;
using test_support::read_file;
using test_support::ScratchDirectory;
using test_support::write_file;

// This program is the ELF file of the tests, and has what a kernel module has.
[[gnu::used, gnu::section(".modinfo")]] const char kModuleInfo[] =
    "license=GPL\0vermagic=6.1.0-47-amd64 SMP preempt mod_unload modversions ";

constexpr char kThisProgram[] = "/proc/self/exe";
constexpr char kThisRelease[] = "6.1.0-47-amd64";

constexpr std::size_t kClassOffset = EI_CLASS;
constexpr std::size_t kMachineOffset = offsetof(Elf64_Ehdr, e_machine);

class ElfReader : public testing::Test {
 protected:
  void SetUp() override {
    // The linker keeps what the program reads.
    ASSERT_EQ(static_cast<const volatile char&>(kModuleInfo[0]), 'l');
  }

  std::optional<publish::ElfFile> read(const std::string& bytes) {
    write_file(scratch_ / "file", bytes);
    return read_elf(scratch_ / "file");
  }

  ScratchDirectory scratch_;
};

TEST_F(ElfReader, ReadsTheProcessorAndTheKernel) {
  const auto elf = read_elf(kThisProgram);
  ASSERT_TRUE(elf);
  EXPECT_EQ(elf->processor, sizeof(void*) == 8 ? Processor::kX64 : Processor::kX86);
  EXPECT_EQ(elf->kernel_release, kThisRelease);
}

TEST_F(ElfReader, ReadsTheKernelUpToTheFirstBlankOrTheEnd) {
  std::string program = read_file(kThisProgram);
  program.replace(program.find(std::string("vermagic=") + kThisRelease), 15, "vermagic=6.1\0.0",
                  15);
  const auto elf = read(program);
  ASSERT_TRUE(elf);
  EXPECT_EQ(elf->kernel_release, "6.1");
}

TEST_F(ElfReader, FindsNoKernelWhereNoneIsNamed) {
  std::string program = read_file(kThisProgram);
  program[program.find(std::string("vermagic=") + kThisRelease)] = 'x';
  const auto elf = read(program);
  ASSERT_TRUE(elf);
  EXPECT_EQ(elf->kernel_release, "");
}

TEST_F(ElfReader, KnowsNoOtherProcessor) {
  std::string program = read_file(kThisProgram);
  program[kMachineOffset] = static_cast<char>(EM_AARCH64);
  const auto elf = read(program);
  ASSERT_TRUE(elf);
  EXPECT_EQ(elf->processor, Processor::kOther);
}

TEST_F(ElfReader, RefusesAFileThatIsTruncatedAnywhere) {
  const std::string program = read_file(kThisProgram);
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{3}, std::size_t{4}, std::size_t{16}, sizeof(Elf64_Ehdr) - 1,
        sizeof(Elf64_Ehdr), program.size() / 2, program.size() - 1}) {
    EXPECT_FALSE(read(program.substr(0, size))) << size;
  }
}

TEST_F(ElfReader, RefusesAFileThatIsNotElf) {
  EXPECT_FALSE(read("<html>404</html>\n"));
  EXPECT_FALSE(read("!<arch>\n"));
  std::string program = read_file(kThisProgram);
  program[kClassOffset] = 7;
  EXPECT_FALSE(read(program));
}

TEST_F(ElfReader, RefusesAFileThatCannotBeRead) {
  EXPECT_FALSE(read_elf(scratch_ / "missing"));
  EXPECT_FALSE(read_elf(scratch_.path()));
}

}  // namespace
