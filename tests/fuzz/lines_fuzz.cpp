// The readers of text files, and the install path, which is the first line of one.
// Input: limit|most lines|bytes of the file
#include <algorithm>
#include <cstddef>
#include <optional>

#include "models.h"
#include "support.h"
#include "utility/file.h"
#include "utility/unix_helper.h"

namespace {

constexpr int kInstallPathLimit = 1023;

/// A limit has room for at least one character and the terminating zero.
int limit_from(const std::string& text) { return std::clamp(fuzz::leading_int(text), 2, 4096); }

void check_first_line(const string_list& pieces, int limit) {
  const std::optional<std::string> line = utility::read_first_line(fuzz::kInstallPathFile, limit);
  fuzz::check(line.has_value(), "a file that is there can be read");
  fuzz::check(line->size() < static_cast<std::size_t>(limit), "read_first_line keeps its limit");
  fuzz::check_equal(*line, pieces.empty() ? "" : pieces.front(), "the first line is read");
}

void check_lines(const string_list& expected, int limit) {
  string_list visited;
  const auto visit = [&](const std::string& line) {
    visited.push_back(line);
    return true;
  };
  fuzz::check(utility::visit_lines(fuzz::kInstallPathFile, limit, visit),
              "a file that is there can be read");
  fuzz::check_equal(visited, expected, "every piece of every line is told");
}

void check_first_lines(string_list expected, int limit, std::size_t most) {
  string_list lines;
  fuzz::check(utility::read_lines(fuzz::kInstallPathFile, limit, most, lines),
              "a file that is there can be read");
  expected.resize(std::min(expected.size(), most));
  fuzz::check_equal(lines, expected, "read_lines keeps its number of lines");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::enter_private_directory();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Fields fields(data, size);
  const int limit = limit_from(fields.next());
  const auto most = static_cast<std::size_t>(std::max(fuzz::leading_int(fields.next()), 1));
  const std::string bytes = fields.rest();
  fuzz::write_file(fuzz::kInstallPathFile, bytes);

  string_list pieces = fuzz::line_pieces(bytes, static_cast<std::size_t>(limit));
  check_first_line(pieces, limit);
  for (std::string& piece : pieces) piece = piece.substr(0, piece.find('\n'));
  check_lines(pieces, limit);
  check_first_lines(pieces, limit, most);
  fuzz::check_equal(utility::CUnixHelper::get_norvak_path(),
                    fuzz::first_line(bytes, kInstallPathLimit),
                    "the install directory is the first line");
  return 0;
}
