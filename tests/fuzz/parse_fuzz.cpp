// Splitting a command line in place, and looking up its program on PATH.
// Input: delimiters|PATH, or - for none|text
#include <algorithm>
#include <vector>

#include "command_model.h"
#include "support.h"
#include "utility/unix_helper.h"

using utility::CUnixHelper;

namespace {

/// A copy of @a text with its terminating zero, without spare bytes.
std::vector<char> exact_copy(const std::string& text) {
  std::vector<char> copy(text.begin(), text.end());
  copy.push_back('\0');
  copy.shrink_to_fit();
  return copy;
}

void check_trim_space(const std::string& text) {
  std::vector<char> copy = exact_copy(text);
  fuzz::check(CUnixHelper::trim_space(copy.data()) == copy.data(), "trim_space returns its text");
  const std::string once = copy.data();
  fuzz::check_equal(once, fuzz::without_outer_space(text), "trim_space removes the outer space");
  fuzz::check_equal(CUnixHelper::trim_space(copy.data()), once, "trimming twice is trimming once");
}

void check_parse(const std::string& text, const std::string& delimiters) {
  std::vector<char> copy = exact_copy(text);
  const auto is_delimiter = [&](char c) { return delimiters.find(c) != std::string::npos; };
  const auto most =
      static_cast<std::size_t>(std::count_if(text.begin(), text.end(), is_delimiter)) + 1;
  std::vector<char*> fields(most, nullptr);
  int count = 0;
  fuzz::check(CUnixHelper::parse(copy.data(), delimiters.c_str(), fields.data(), &count),
              "a text is split");
  fuzz::check(count >= 1 && static_cast<std::size_t>(count) <= most,
              "there is at most one field more than there are delimiters");

  string_list found;
  for (int i = 0; i < count; ++i) {
    const char* const field = fields[static_cast<std::size_t>(i)];
    fuzz::check(field >= copy.data() && field < copy.data() + copy.size(),
                "fields lie in the text");
    found.emplace_back(field);
  }
  fuzz::check_equal(found, fuzz::command_fields(text, delimiters), "the fields are the model's");
}

void check_program_path(const std::string& command, const std::optional<std::string>& path) {
  fuzz::set_path(path);
  std::vector<char> resolved(CUnixHelper::kResolvedBytes, '\0');
  const int result = CUnixHelper::get_command_obs_path(command.c_str(), resolved.data());
  const std::optional<std::string> expected = fuzz::program_path(command, path);
  fuzz::check_equal(result, expected ? 1 : 0, "a program is looked for when it can be");
  if (expected) fuzz::check_equal(resolved.data(), *expected, "the program is the model's");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Fields fields(data, size);
  const std::string delimiters = fuzz::before_nul(fields.next());
  const std::string path = fuzz::before_nul(fields.next());
  const std::string text = fuzz::before_nul(fields.rest());
  check_trim_space(text);
  check_parse(text, delimiters);
  check_parse(fuzz::with_protected_blanks(text), " ");
  check_program_path(text, path == "-" ? std::nullopt : std::optional(path));
  return 0;
}
