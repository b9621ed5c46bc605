// The log reader and the search for the last runs. Input: the bytes of a log.
#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

#include "log_messages.h"
#include "log_reader.h"
#include "log_runs.h"
#include "support.h"
#include "utility/string_list.h"

namespace {

constexpr char kLog[] = "/var/log/update.log";

/// The lines of @a bytes, read forwards: those with NULs fall into the pieces between them.
string_list lines_of(const std::string& bytes) {
  string_list lines;
  const auto add = [&lines](const std::string& line) {
    if (line.size() <= host::BackwardFile::kMaxLineBytes) lines.push_back(line);
  };
  std::size_t begin = 0;
  while (begin < bytes.size()) {
    const std::size_t end = std::min(bytes.find('\n', begin), bytes.size());
    const std::string line = bytes.substr(begin, end - begin);
    if (line.find('\0') == std::string::npos) {
      add(line);
    } else {
      string_list pieces;
      for (std::size_t i = 0, zero = 0; i <= line.size(); i = zero + 1) {
        zero = std::min(line.find('\0', i), line.size());
        if (zero > i) add(line.substr(i, zero - i));
      }
    }
    begin = end + 1;
  }
  return lines;
}

/// Checks what holds for every run, whatever the log says.
void check_run(const host::LoggedRun& run, host::UpdateType type, const string_list& lines) {
  auto place = lines.begin();
  for (const host::LogLine& line : run.lines) {
    const bool is_transfer = line.format == log_messages::kTransferFailed ||
                             line.format == log_messages::kTransferInitFailed;
    fuzz::check(line.type == type || is_transfer, "a run has lines of its type only");
    place = std::find(place, lines.end(), line.text);
    fuzz::check(place != lines.end(), "a run's lines are in the order of the log");
    ++place;
  }
  fuzz::check(run.verdict == host::Verdict::kUnknown || !run.lines.empty(),
              "a verdict has a line to stand on");
  const bool says_updated = run.lines.back().format == log_messages::kSoftUpdated ||
                            run.lines.back().format == log_messages::kNginxUpdated ||
                            run.lines.back().format == log_messages::kRulesUpdated;
  if (type != host::UpdateType::kKernel) {
    fuzz::check(says_updated == (run.verdict == host::Verdict::kUpdated),
                "a run is successful exactly if its last line says so");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::enter_private_directory();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  fuzz::write_file(kLog, bytes);
  const string_list expected = lines_of(bytes);

  host::LogReader reader(kLog, host::LogReader::kNoLimit);
  host::RunFinder finder;
  string_list lines;
  std::string_view line;
  while (reader.next(line)) {
    lines.emplace_back(line);
    finder.add(line, reader.written());
  }
  std::reverse(lines.begin(), lines.end());
  fuzz::check_equal(lines, expected, "every line is read, in order");
  for (const host::UpdateType type : host::kUpdateTypes) {
    const host::RunCollector& collector = finder.collector(type);
    if (collector.found()) check_run(collector.run(), type, expected);
  }
  return 0;
}
