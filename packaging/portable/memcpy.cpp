// memcpy in the version that every x86-64 glibc has. The linker directs all calls here (--wrap).
//
// glibc 2.14 gave memcpy a new version, to keep older programs working that relied on overlapping
// blocks being copied as memmove copies them. Nothing here depends on the difference.
#include <cstddef>

extern "C" {

void* old_memcpy(void* target, const void* source, std::size_t size);
__asm__(".symver old_memcpy, memcpy@GLIBC_2.2.5");

// The linker prescribes the name.
void* __wrap_memcpy(void* target, const void* source, std::size_t size);
void* __wrap_memcpy(void* target, const void* source, std::size_t size) {
  return old_memcpy(target, source, size);
}
}
