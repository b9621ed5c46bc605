// Reading lines of text files, and the install path.
// Input: limit|bytes of the file
#include <algorithm>
#include <cstddef>
#include <optional>

#include "models.h"
#include "support.h"
#include "utility/file.h"
#include "utility/string_list.h"
#include "utility/unix_helper.h"

namespace {

constexpr int kInstallPathLimit = 1023;

/// A limit with room for at least one character and the terminating zero.
int limit_from(const std::string& text) { return std::clamp(fuzz::leading_int(text), 2, 4096); }

void check_first_line(const string_list& pieces, int limit) {
  const std::optional<std::string> line = utility::read_first_line(fuzz::kInstallPathFile, limit);
  fuzz::check(line.has_value(), "a file that is there can be read");
  fuzz::check(line->size() < static_cast<std::size_t>(limit), "read_first_line keeps its limit");
  fuzz::check_equal(*line, pieces.empty() ? "" : pieces.front(), "the first line is read");
}

void check_lines(const string_list& expected, int limit) {
  utility::LineReader reader(fuzz::kInstallPathFile, limit);
  fuzz::check(static_cast<bool>(reader), "an existing file can be opened");
  string_list lines;
  std::string line;
  while (reader.next(line)) lines.push_back(line);
  fuzz::check_equal(lines, expected, "every piece of every line is read");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::enter_private_directory();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Fields fields(data, size);
  const int limit = limit_from(fields.next());
  const std::string bytes = fields.rest();
  fuzz::write_file(fuzz::kInstallPathFile, bytes);

  string_list pieces = fuzz::line_pieces(bytes, static_cast<std::size_t>(limit));
  check_first_line(pieces, limit);
  for (std::string& piece : pieces) piece = piece.substr(0, piece.find('\n'));
  check_lines(pieces, limit);
  fuzz::check_equal(utility::CUnixHelper::get_norvak_path(),
                    fuzz::first_line(bytes, kInstallPathLimit),
                    "the install directory is the first line");
  return 0;
}
