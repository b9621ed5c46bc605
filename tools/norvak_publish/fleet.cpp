#include "fleet.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <fstream>
#include <ios>
#include <istream>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "failure.h"
#include "host_identity.h"

namespace publish {

namespace {

constexpr char kHeader[] = "distribution,machine,release,count";
constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";
constexpr std::size_t kFields = 4;
/// No line of a fleet is longer.
constexpr std::size_t kMostLineBytes = std::size_t{1} << 20;
/// The longest text that uname() can report.
constexpr std::size_t kMostNameBytes = 64;

/// A message about one line; the caller adds the names of the file and the line.
struct BadLine {
  std::string reason;
};

/// Reads a line without its line end.
/// @return false at the end of the input
/// @throws BadLine  the line is too long
bool read_line(std::istream& input, std::string& line) {
  line.clear();
  std::streambuf& buffer = *input.rdbuf();
  for (int c = buffer.sbumpc(); c != std::char_traits<char>::eof(); c = buffer.sbumpc()) {
    if (c == '\n') {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      return true;
    }
    if (line.size() == kMostLineBytes) throw BadLine{"the line is too long"};
    line += static_cast<char>(c);
  }
  return !line.empty();
}

/// The fields of a CSV line. Spreadsheets may put them in quotes.
std::vector<std::string> split_csv(std::string_view line) {
  std::vector<std::string> fields;
  for (;;) {
    const std::size_t end = std::min(line.find(','), line.size());
    std::string_view field = line.substr(0, end);
    if (field.size() >= 2 && field.front() == '"' && field.back() == '"') {
      field = field.substr(1, field.size() - 2);
    }
    fields.emplace_back(field);
    if (end == line.size()) return fields;
    line.remove_prefix(end + 1);
  }
}

std::uint64_t parse_count(const std::string& text) {
  std::uint64_t count = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, count);
  if (text.empty() || result.ec != std::errc() || result.ptr != end) {
    throw BadLine{"the count is not a number"};
  }
  return count;
}

FleetKernel parse_csv(const std::string& line) {
  const std::vector<std::string> fields = split_csv(line);
  if (fields.size() != kFields) throw BadLine{std::string("the fields are not ") + kHeader};
  return {fields[0], fields[1], fields[2], parse_count(fields[3])};
}

FleetKernel parse_json(const std::string& line) {
  const nlohmann::json host = nlohmann::json::parse(line, nullptr, false);
  const auto text = [&host](const char* name) {
    const auto member = host.find(name);
    if (member == host.end() || !member->is_string()) {
      throw BadLine{std::string("this is not a host: it has no \"") + name + "\""};
    }
    return member->get<std::string>();
  };
  if (!host.is_object()) throw BadLine{"this is not a JSON object"};
  return {text("family"), text("machine"), text("kernel_release"), 1};
}

/// Whether @a text can be a name that uname() reports. It is then safe as one part of a path.
bool is_name(const std::string& text) {
  if (text.empty() || text.size() > kMostNameBytes || text == "." || text == "..") return false;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= ' ' || byte >= 0x7f || c == '/') return false;
  }
  return true;
}

void verify(const FleetKernel& kernel) {
  if (kernel.distribution != host_identity::kCentos &&
      kernel.distribution != host_identity::kSuse &&
      kernel.distribution != host_identity::kUbuntu) {
    throw BadLine{"the distribution is neither centos nor suse nor ubuntu"};
  }
  if (!is_name(kernel.machine)) throw BadLine{"the machine is not a name that uname -m prints"};
  if (!is_name(kernel.release)) throw BadLine{"the release is not a name that uname -r prints"};
}

/// Collects the kernels of the lines.
class Collector {
 public:
  void add(const FleetKernel& kernel) {
    if (kernel.hosts > std::numeric_limits<std::uint64_t>::max() - hosts_) {
      throw BadLine{"the counts are too large"};
    }
    hosts_ += kernel.hosts;
    const std::string key = kernel.distribution + ' ' + kernel.machine + ' ' + kernel.release;
    const auto [place, is_new] = places_.try_emplace(key, kernels_.size());
    if (is_new) {
      kernels_.push_back(kernel);
    } else {
      kernels_[place->second].hosts += kernel.hosts;
    }
  }

  [[nodiscard]] std::vector<FleetKernel> take() { return std::move(kernels_); }

 private:
  std::uint64_t hosts_ = 0;  // of all kernels
  std::unordered_map<std::string, std::size_t> places_;
  std::vector<FleetKernel> kernels_;
};

}  // namespace

std::vector<FleetKernel> read_fleet(std::istream& input, const std::string& name) {
  Collector collector;
  std::string line;
  std::optional<bool> is_csv;  // decided by the first line that is not empty
  std::size_t number = 0;
  try {
    while (++number, read_line(input, line)) {
      if (number == 1 && line.rfind(kByteOrderMark, 0) == 0) {
        line.erase(0, sizeof kByteOrderMark - 1);
      }
      if (line.empty()) continue;
      if (!is_csv) {
        is_csv = line.front() != '{';
        if (*is_csv && line != kHeader) throw BadLine{std::string("the header is not ") + kHeader};
        if (*is_csv) continue;
      }
      const FleetKernel kernel = *is_csv ? parse_csv(line) : parse_json(line);
      verify(kernel);
      collector.add(kernel);
    }
  } catch (const BadLine& bad) {
    throw Failure(name + ", line " + std::to_string(number) + ": " + bad.reason);
  } catch (const std::ios_base::failure&) {
    throw Failure("cannot read " + name);  // a directory, for example
  }
  return collector.take();
}

std::vector<FleetKernel> read_fleet_file(const std::string& path) {
  std::ifstream input(path, std::ios::binary);
  if (!input) fail_with_errno("cannot read", path);
  return read_fleet(input, path);
}

}  // namespace publish
