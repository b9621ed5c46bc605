// Shared by the fuzz targets: checks of properties, inputs with several fields, and private files.
//
// A target defines LLVMFuzzerTestOneInput. It is linked either with libFuzzer or with replay.cpp,
// which runs only the inputs of the corpus.
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

/// As check() for two values that must be equal. They are printed if they differ.
void check_equal(std::string_view actual, std::string_view expected, const char* property);
void check_equal(const string_list& actual, const string_list& expected, const char* property);
void check_equal(long long actual, long long expected, const char* property);

/// The fields of an input, separated by '|', which has no meaning for the code under test. A field
/// can contain any other byte.
class Fields {
 public:
  Fields(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  /// Returns the next field; empty if there is none left.
  std::string next();

  /// The remaining fields, with their separators.
  [[nodiscard]] std::string rest() const { return std::string(rest_); }

 private:
  std::string_view rest_;
};

/// @a bytes up to the first NUL.
std::string before_nul(const std::string& bytes);

/// The file that names the agent's install directory, and that directory. Both are in a file system
/// in memory that is mounted over /var/log and that only this process sees.
inline constexpr char kInstallPathFile[] = "/var/log/version_control";
inline constexpr char kInstallPath[] = "/var/log/agent";

/// Mounts that file system and creates both. If the host does not allow private mount namespaces,
/// ends the process with kCannotRun, which counts as skipped. To be called by LLVMFuzzerInitialize.
void enter_private_directory();

inline constexpr int kCannotRun = 4;

void write_file(const std::string& path, std::string_view bytes);
std::string read_file(const std::string& path);

}  // namespace fuzz
