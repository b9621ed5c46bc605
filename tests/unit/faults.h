// Faults of the host that no arrangement of files brings about, for the unit test program.
#pragma once

#include <cstddef>

namespace test_support {

enum class Fault {
  kNone,
  kReadFails,     ///< read() of a regular file fails with EIO
  kCloseFails,    ///< close() of a regular file opened for writing closes it, but fails with EIO
  kNoEntryTypes,  ///< readdir() gives entries of unknown type, as some file systems do
  kAccessFails,   ///< access() fails with EIO
  kNoMemory,      ///< new (std::nothrow) gives null, for arrays too
};

/// Brings a fault into this process while it lives. One at a time.
class ScopedFault {
 public:
  /// @param readable_bytes  of kReadFails: how many bytes can be read first, over all files
  explicit ScopedFault(Fault fault, std::size_t readable_bytes = 0);
  ~ScopedFault();
  ScopedFault(const ScopedFault&) = delete;
  ScopedFault& operator=(const ScopedFault&) = delete;
};

}  // namespace test_support
