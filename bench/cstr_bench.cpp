// The string helpers, on texts of the lengths that an update meets and on long ones.
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

void Trim(benchmark::State& state) {
  const std::string text = "  " + repeated("word ", state.range(0)) + "\r\n";
  for (auto _ : state) {
    std::string copy = text;
    CStr::trim(copy);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(Trim)->Arg(kShort)->Arg(kLong);

void TrimRemarks(benchmark::State& state) {
  const std::string text = repeated("text /* remark */ ", state.range(0));
  for (auto _ : state) {
    std::string copy = text;
    CStr::trim_remark("/*", "*/", copy);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(TrimRemarks)->Arg(kShort)->Arg(kLong);

void SplitAtDelimiter(benchmark::State& state) {
  const std::string text = repeated("3.14.", state.range(0));
  for (auto _ : state) {
    string_list pieces;
    CStr::ext_line(".", pieces, text);
    benchmark::DoNotOptimize(pieces);
  }
}
BENCHMARK(SplitAtDelimiter)->Arg(kShort)->Arg(kLong);

void SplitWords(benchmark::State& state) {
  const std::string text = repeated("a few words ", state.range(0));
  for (auto _ : state) {
    string_list words;
    CStr::ext_line(words, text);
    benchmark::DoNotOptimize(words);
  }
}
BENCHMARK(SplitWords)->Arg(kShort)->Arg(kLong);

void Replace(benchmark::State& state) {
  const std::string text = repeated("value=$path;", state.range(0));
  for (auto _ : state) {
    std::string copy = text;
    CStr::string_replace(copy, "$path", "/usr/local/norvak_agent");
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(Replace)->Arg(kShort)->Arg(kLong);

void ParseCommand(benchmark::State& state) {
  const std::string command = repeated("tool -x \"a quoted text\" ", state.range(0));
  std::vector<char*> fields(command.size() + 2);
  for (auto _ : state) {
    std::string copy = command;
    int count = 0;
    utility::CUnixHelper::parse(copy.data(), " ", fields.data(), &count);
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(ParseCommand)->Arg(kShort)->Arg(1 << 10);

}  // namespace
