# The libraries. If one is missing, the configuration ends with the name of its package instead of a
# list of unset variables.
function(norvak_find_or_explain found_variable what debian_package rpm_package)
  if(NOT ${found_variable})
    message(FATAL_ERROR
      "${what} was not found. Install its development package: "
      "'apt-get install ${debian_package}' (Debian, Ubuntu) or "
      "'dnf install ${rpm_package}' (Fedora, CentOS).")
  endif()
endfunction()

find_package(CURL QUIET)
norvak_find_or_explain(CURL_FOUND "libcurl" libcurl4-openssl-dev libcurl-devel)
set(norvak_libcurl CURL::libcurl)
find_package(pugixml QUIET)
norvak_find_or_explain(pugixml_FOUND "pugixml" libpugixml-dev pugixml-devel)
# The C++ runtime and pugixml are linked statically together or not at all: pugixml's shared library
# would load a second runtime into the process.
set(norvak_pugixml pugixml::pugixml)
set(norvak_pugixml_is_static OFF)
if(NORVAK_STATIC_RUNTIME)
  find_library(NORVAK_PUGIXML_ARCHIVE libpugixml.a)
  if(NORVAK_PUGIXML_ARCHIVE)
    set(norvak_pugixml ${NORVAK_PUGIXML_ARCHIVE})
    set(norvak_pugixml_is_static ON)
    target_include_directories(norvak_options SYSTEM INTERFACE
      $<TARGET_PROPERTY:pugixml::pugixml,INTERFACE_INCLUDE_DIRECTORIES>)
  else()
    message(STATUS "No static pugixml: the C++ runtime stays a shared library")
  endif()
endif()

if(NORVAK_HOST OR NORVAK_PUBLISH)
  find_package(CLI11 CONFIG QUIET)
  norvak_find_or_explain(CLI11_FOUND "CLI11" libcli11-dev cli11-devel)
  find_package(nlohmann_json CONFIG QUIET)
  norvak_find_or_explain(nlohmann_json_FOUND "nlohmann-json" nlohmann-json3-dev json-devel)
endif()
if(NORVAK_HOST)
  find_package(ZLIB QUIET)
  norvak_find_or_explain(ZLIB_FOUND "zlib" zlib1g-dev zlib-devel)
endif()
if(NORVAK_PUBLISH)
  find_package(Threads REQUIRED)
  find_package(LibArchive QUIET)
  norvak_find_or_explain(LibArchive_FOUND "libarchive" libarchive-dev libarchive-devel)
  find_package(OpenSSL QUIET COMPONENTS Crypto)
  norvak_find_or_explain(OPENSSL_FOUND "OpenSSL" libssl-dev openssl-devel)
  find_path(NORVAK_LIBELF_INCLUDE libelf.h)
  find_library(NORVAK_LIBELF elf)
  norvak_find_or_explain(NORVAK_LIBELF "libelf" libelf-dev elfutils-libelf-devel)
endif()

if(BUILD_TESTING)
  find_package(GTest QUIET)
  norvak_find_or_explain(GTest_FOUND "GoogleTest" libgtest-dev gtest-devel)
endif()
