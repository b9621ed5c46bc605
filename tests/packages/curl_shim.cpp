// A libcurl.so.4 that forwards to the machine's own. The linker script of a test gives it symbol
// versions, so that it can pass for the libcurl of another distribution.
#include <dlfcn.h>

#include <cstdlib>

namespace {

// REAL_LIBCURL: the path of the machine's own libcurl.so.4.
void* real(const char* name) {
  static void* const library = dlopen(REAL_LIBCURL, RTLD_NOW | RTLD_LOCAL);
  void* const function = library == nullptr ? nullptr : dlsym(library, name);
  if (function == nullptr) std::abort();
  return function;
}

}  // namespace

extern "C" {

void* curl_easy_init() { return reinterpret_cast<void* (*)()>(real("curl_easy_init"))(); }

void curl_easy_cleanup(void* curl) {
  reinterpret_cast<void (*)(void*)>(real("curl_easy_cleanup"))(curl);
}

int curl_easy_perform(void* curl) {
  return reinterpret_cast<int (*)(void*)>(real("curl_easy_perform"))(curl);
}

// All arguments that the updater passes have the size of a pointer.
int curl_easy_setopt(void* curl, int option, void* value) {
  return reinterpret_cast<int (*)(void*, int, ...)>(real("curl_easy_setopt"))(curl, option, value);
}
}
