# Options of all targets of this project, as one INTERFACE target.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

check_pie_supported(LANGUAGES CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)  # executables are PIE

add_library(norvak_options INTERFACE)

# Files over 2 GiB, 64-bit inode numbers and times after 2038, on 32-bit hosts too.
target_compile_definitions(norvak_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

target_compile_options(norvak_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wcast-qual -Wunused -Wnull-dereference
  -Wdouble-promotion -Wformat=2 -Wformat-nonliteral -Wimplicit-fallthrough -Wundef
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wduplicated-branches -Wlogical-op>
  $<$<BOOL:${NORVAK_WERROR}>:-Werror>)

# Hardening options that distributions use for their own packages.
foreach(flag IN ITEMS -fstack-protector-strong -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "norvak_has${flag}" has_flag)
  check_cxx_compiler_flag("-Werror ${flag}" ${has_flag})
  if(${has_flag})
    target_compile_options(norvak_options INTERFACE ${flag})
  endif()
endforeach()
if(NORVAK_SANITIZE)
  target_compile_options(norvak_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(norvak_options INTERFACE -fsanitize=address,undefined)
else()
  target_compile_definitions(norvak_options INTERFACE _GLIBCXX_ASSERTIONS)
  target_compile_options(norvak_options INTERFACE  # some compilers predefine another level
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()
option(NORVAK_COVERAGE "Count the executed lines and branches" OFF)
if(NORVAK_COVERAGE)
  target_compile_options(norvak_options INTERFACE --coverage)
  target_link_options(norvak_options INTERFACE --coverage)
endif()
# Leaks and coverage counts are reported by exit handlers, which _exit() would skip.
if(NORVAK_SANITIZE OR NORVAK_COVERAGE)
  target_compile_definitions(norvak_options INTERFACE NORVAK_ORDERLY_EXIT)
endif()
target_link_options(norvak_options INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
