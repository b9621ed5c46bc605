// The XML layer, on configuration files with one setting and with many.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "xml/config.h"
#include "xml/xml_document.h"

namespace {

/// A temporary config.xml with the given number of settings.
class ConfigFile {
 public:
  explicit ConfigFile(std::int64_t settings) {
    const int file = ::mkstemp(path_);
    if (file < 0) std::abort();
    (void)::close(file);
    std::ofstream out(path_);
    out << "<?xml version=\"1.0\"?>\n<norvak>\n<Process>\n<Data>\n";
    for (std::int64_t i = 1; i < settings; ++i) {
      out << "<var name=\"setting" << i << "\" value=\"" << i << "\" note=\"one of many\"/>\n";
    }
    out << "<var name=\"version\" value=\"norvak3.1.9\"/>\n</Data>\n</Process>\n</norvak>\n";
  }
  ConfigFile(const ConfigFile&) = delete;
  ConfigFile& operator=(const ConfigFile&) = delete;
  ~ConfigFile() { (void)::unlink(path_); }

  [[nodiscard]] const char* path() const { return path_; }

 private:
  char path_[32] = "/tmp/norvak_bench_XXXXXX";
};

void Load(benchmark::State& state) {
  const ConfigFile config(state.range(0));
  for (auto _ : state) {
    const auto document = newXmlDocument();
    benchmark::DoNotOptimize(document->load(config.path()));
  }
}
BENCHMARK(Load)->Arg(1)->Arg(20)->Arg(10000);

void Select(benchmark::State& state) {
  const ConfigFile config(state.range(0));
  const auto document = newXmlDocument();
  if (document->load(config.path()) == 0) state.SkipWithError("the file cannot be loaded");
  const XmlNode root = document->root();
  for (auto _ : state) {
    benchmark::DoNotOptimize(root.select_nodes(config::kSettings).length());
  }
}
BENCHMARK(Select)->Arg(1)->Arg(20)->Arg(10000);

void GetSetting(benchmark::State& state) {
  const ConfigFile config(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(config::get_config_var(config.path(), config::kVersion));
  }
}
BENCHMARK(GetSetting)->Arg(1)->Arg(20)->Arg(10000);

void SetAttribute(benchmark::State& state) {
  const ConfigFile config(state.range(0));
  const auto document = newXmlDocument();
  if (document->load(config.path()) == 0) state.SkipWithError("the file cannot be loaded");
  const XmlNodeList settings = document->root().select_nodes(config::kSettings);
  XmlNode last = settings.item(settings.length() - 1);
  for (auto _ : state) {
    last.set_attribute(config::kValue, "norvak3.1.10");
  }
}
BENCHMARK(SetAttribute)->Arg(1)->Arg(20)->Arg(10000);

/// Includes flushing to disk.
void Save(benchmark::State& state) {
  const ConfigFile config(state.range(0));
  const auto document = newXmlDocument();
  if (document->load(config.path()) == 0) state.SkipWithError("the file cannot be loaded");
  for (auto _ : state) {
    benchmark::DoNotOptimize(document->save(config.path()));
  }
}
BENCHMARK(Save)->Arg(1)->Arg(20)->Arg(10000);

}  // namespace
