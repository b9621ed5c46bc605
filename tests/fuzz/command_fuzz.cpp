// Running a command line, up to the program and the arguments: nothing is executed.
// Input: PATH, or - for none|command line
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "command_model.h"
#include "support.h"
#include "utility/unix_helper.h"

namespace {

/// What the child process was to execute, in memory shared with it: the program and the arguments,
/// each terminated by a NUL.
struct Execution {
  std::size_t size;
  char texts[std::size_t{1} << 20];
};
Execution* execution = nullptr;

void append(const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  if (execution->size + size > sizeof execution->texts) return;
  std::memcpy(execution->texts + execution->size, text, size);
  execution->size += size;
}

string_list executed() {
  string_list texts;
  for (std::size_t i = 0; i < execution->size; i += texts.back().size() + 1) {
    texts.emplace_back(execution->texts + i);
  }
  return texts;
}

}  // namespace

// Replaces the C library's function in this program: records its arguments.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): reserved names there
extern "C" int execv(const char* program, char* const* arguments) noexcept {
  append(program);
  for (; *arguments != nullptr; ++arguments) append(*arguments);
  errno = ENOEXEC;
  return -1;
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  void* const memory =
      ::mmap(nullptr, sizeof(Execution), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  fuzz::check(memory != MAP_FAILED, "there is memory to share with the child");
  execution = static_cast<Execution*>(memory);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Fields fields(data, size);
  const std::string path_text = fuzz::before_nul(fields.next());
  const auto path = path_text == "-" ? std::nullopt : std::optional(path_text);
  const std::string command = fuzz::before_nul(fields.rest());

  fuzz::set_path(path);
  execution->size = 0;
  const int status = utility::CUnixHelper::keld_system(command.c_str());

  string_list expected = fuzz::command_fields(fuzz::with_protected_blanks(command), " ");
  const std::optional<std::string> program = fuzz::program_path(expected.front(), path);
  if (program) {
    expected.insert(expected.begin(), *program);
    fuzz::check(WIFEXITED(status) && WEXITSTATUS(status) == 127,
                "a program that cannot be executed shows as 127");
  } else {
    expected.clear();
    fuzz::check_equal(status, -1, "no child is started when there is no program to look for");
  }
  fuzz::check_equal(executed(), expected, "the program and its arguments are the model's");
  return 0;
}
