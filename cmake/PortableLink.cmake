# How the host packages are linked, so that one program per architecture runs on every supported
# distribution (packaging/hosts.tsv). For packages only: a program for this machine needs none of it.
#
# - The C++ runtime, pugixml and zlib are linked in.
# - memcpy is bound to its oldest version. Without this, x86-64 programs need glibc 2.14 for nothing
#   but that one symbol.
# - libcurl is replaced at link time by a stub without symbol versions. The program then asks for
#   none, and any libcurl.so.4 does: without versions (CentOS, SUSE), or with CURL_OPENSSL_3 or _4
#   (Debian, Ubuntu).
#
# glibc has to be old enough besides: scripts/package.sh builds in Debian 11.
option(NORVAK_PORTABLE "Link for all supported distributions; for packages only" OFF)
if(NOT NORVAK_PORTABLE)
  return()
endif()
if(NOT norvak_pugixml_is_static)
  message(FATAL_ERROR "NORVAK_PORTABLE needs NORVAK_STATIC_RUNTIME and a static pugixml.")
endif()

target_link_options(norvak_options INTERFACE -static-libstdc++ -static-libgcc)

set(portable_sources ${CMAKE_CURRENT_SOURCE_DIR}/packaging/portable)

if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  add_library(norvak_old_memcpy STATIC ${portable_sources}/memcpy.cpp)
  target_compile_options(norvak_old_memcpy PRIVATE -O2 -fno-builtin)
  # --undefined: libraries that come later on the command line call memcpy too.
  target_link_options(norvak_old_memcpy INTERFACE
    LINKER:--wrap=memcpy LINKER:--undefined=__wrap_memcpy)
  target_link_libraries(norvak_options INTERFACE norvak_old_memcpy)
endif()

add_library(norvak_curl_stub SHARED ${portable_sources}/curl_stub.cpp)
set_target_properties(norvak_curl_stub PROPERTIES OUTPUT_NAME curl SOVERSION 4)
target_include_directories(norvak_curl_stub SYSTEM INTERFACE ${CURL_INCLUDE_DIRS})
set(norvak_libcurl norvak_curl_stub)
set(CMAKE_SKIP_RPATH ON)  # the stub is for the linker, never for a run

if(TARGET ZLIB::ZLIB)
  find_library(NORVAK_ZLIB_ARCHIVE libz.a REQUIRED)
  set_target_properties(ZLIB::ZLIB PROPERTIES IMPORTED_LOCATION ${NORVAK_ZLIB_ARCHIVE}
    IMPORTED_LOCATION_RELEASE ${NORVAK_ZLIB_ARCHIVE})
endif()
