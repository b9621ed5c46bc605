// Fault injection for the unit test program: faults that no set-up of files can cause.
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

/// Injects a fault into this process while the object exists. One at a time.
class ScopedFault {
 public:
  /// @param readable_bytes  for kReadFails: how many bytes can be read before, over all files
  explicit ScopedFault(Fault fault, std::size_t readable_bytes = 0);
  ~ScopedFault();
  ScopedFault(const ScopedFault&) = delete;
  ScopedFault& operator=(const ScopedFault&) = delete;
};

}  // namespace test_support
