// What the fuzz targets share: how a property is checked, how an input holds several fields, and
// files that nobody else sees.
//
// A target is a program around LLVMFuzzerTestOneInput. It is linked either with libFuzzer or with
// replay.cpp, which runs the inputs of the corpus and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "utility/string_list.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Aborts with @a property unless it @a holds: libFuzzer then stores the input.
void check(bool holds, const char* property);

/// As check() for two values that have to be equal, which are shown when they are not.
void check_equal(std::string_view actual, std::string_view expected, const char* property);
void check_equal(const string_list& actual, const string_list& expected, const char* property);
void check_equal(long long actual, long long expected, const char* property);

/// The fields of an input, which are separated by '|' and hold every other byte. That character
/// means nothing to the code under test, and inputs stay readable.
class Fields {
 public:
  Fields(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  /// Takes the next field; empty when there is none left.
  std::string next();

  /// What was not taken yet, separators included.
  [[nodiscard]] std::string rest() const { return std::string(rest_); }

 private:
  std::string_view rest_;
};

/// @a bytes up to the first NUL, as code sees them that is handed a zero-terminated string.
std::string before_nul(const std::string& bytes);

/// A directory that this process alone sees: a file system in memory over /var/log.
inline constexpr char kDirectory[] = "/var/log";

/// The file in it that names the agent's install directory, and that directory.
inline constexpr char kInstallPathFile[] = "/var/log/version_control";
inline constexpr char kInstallPath[] = "/var/log/agent";

/// Makes these. Ends the process with kCannotRun, which counts as skipped, where the host does not
/// allow private mount namespaces. To be called by LLVMFuzzerInitialize.
void enter_private_directory();

inline constexpr int kCannotRun = 4;

void write_file(const std::string& path, std::string_view bytes);
std::string read_file(const std::string& path);

}  // namespace fuzz
