// The string helpers, on texts as short as in an update and on long texts.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <vector>

#include "utility/cstr.h"
#include "utility/unix_helper.h"

namespace {

using utility::CStr;

constexpr int kShort = 40;
constexpr int kLong = 1 << 16;

std::string repeated(const std::string& part, std::int64_t size) {
  std::string text;
  while (text.size() < static_cast<std::size_t>(size)) text += part;
  return text;
}

/// Measures @a change on copies of a text that repeats @a part.
template <typename Change>
void measure(benchmark::State& state, const std::string& part, Change change) {
  const std::string text = repeated(part, state.range(0));
  for (auto _ : state) {
    std::string copy = text;
    change(copy);
    benchmark::DoNotOptimize(copy);
  }
}

void Trim(benchmark::State& state) {
  measure(state, "  words\r\n", [](std::string& text) { CStr::trim(text); });
}
BENCHMARK(Trim)->Arg(kShort)->Arg(kLong);

void TrimRemarks(benchmark::State& state) {
  measure(state, "text /* remark */ ",
          [](std::string& text) { CStr::trim_remark("/*", "*/", text); });
}
BENCHMARK(TrimRemarks)->Arg(kShort)->Arg(kLong);

void SplitAtDelimiter(benchmark::State& state) {
  measure(state, "3.14.", [](const std::string& text) {
    string_list pieces;
    CStr::ext_line(".", pieces, text);
    benchmark::DoNotOptimize(pieces);
  });
}
BENCHMARK(SplitAtDelimiter)->Arg(kShort)->Arg(kLong);

void SplitWords(benchmark::State& state) {
  measure(state, "a few words ", [](const std::string& text) {
    string_list words;
    CStr::ext_line(words, text);
    benchmark::DoNotOptimize(words);
  });
}
BENCHMARK(SplitWords)->Arg(kShort)->Arg(kLong);

void Replace(benchmark::State& state) {
  measure(state, "value=$path;", [](std::string& text) {
    CStr::string_replace(text, "$path", "/usr/local/norvak_agent");
  });
}
BENCHMARK(Replace)->Arg(kShort)->Arg(kLong);

void ParseCommand(benchmark::State& state) {
  std::vector<char*> fields(static_cast<std::size_t>(2 * state.range(0)));
  measure(state, "tool -x \"a quoted text\" ", [&fields](std::string& text) {
    int count = 0;
    utility::CUnixHelper::parse(text.data(), " ", fields.data(), &count);
    benchmark::DoNotOptimize(count);
  });
}
BENCHMARK(ParseCommand)->Arg(kShort)->Arg(1 << 10);

}  // namespace
