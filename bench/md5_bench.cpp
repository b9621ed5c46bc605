// Bytes per second of MD5, by the size of its input pieces.
#include <benchmark/benchmark.h>

#include <vector>

#include "utility/md5.h"

namespace {

void MD5Update(benchmark::State& state) {
  const std::vector<unsigned char> piece(static_cast<std::size_t>(state.range(0)), 'x');
  utility::MD5 md5;
  utility::MD5_CTX context;
  md5.MD5Init(&context);
  for (auto _ : state) {
    md5.MD5Update(&context, piece.data(), static_cast<unsigned int>(piece.size()));
    benchmark::DoNotOptimize(context);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(MD5Update)->Arg(1)->Arg(64)->Arg(100)->Arg(1024)->Arg(64 * 1024);

void WholeDigest(benchmark::State& state) {
  const std::vector<unsigned char> message(static_cast<std::size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    utility::MD5 md5;
    utility::MD5_CTX context;
    unsigned char digest[16];
    md5.MD5Init(&context);
    md5.MD5Update(&context, message.data(), static_cast<unsigned int>(message.size()));
    md5.MD5Final(digest, &context);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(WholeDigest)->Arg(0)->Arg(55)->Arg(1024);

}  // namespace
