# SPDX-License-Identifier: Apache-2.0
# Other processors: ATC_CROSS names one of those below, ATC_CROSS_COMPILER is gcc (the default) or clang. Programs are
# static, so that an emulator needs no libraries. musl is the C library of the build machine's own processor, for what
# is in C or is the module, which needs no C++ library.
set(ATC_CROSS "" CACHE STRING "Processor to build for: i386, armhf, aarch64, powerpc, s390x; or musl")
set(ATC_CROSS_COMPILER gcc CACHE STRING "gcc or clang")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ATC_CROSS ATC_CROSS_COMPILER)
set(CMAKE_SYSTEM_NAME Linux)

# Processor; word size and byte order; the prefix of its compilers; what runs its programs.
set(cross_table
  "i386|32 bits, little-endian|i686-linux-gnu|"
  "armhf|32 bits, little-endian|arm-linux-gnueabihf|qemu-arm"
  "aarch64|64 bits, little-endian|aarch64-linux-gnu|qemu-aarch64"
  "powerpc|32 bits, big-endian|powerpc-linux-gnu|qemu-ppc"
  "s390x|64 bits, big-endian|s390x-linux-gnu|qemu-s390x")
set(CMAKE_SYSTEM_PROCESSOR ${ATC_CROSS})
if(ATC_CROSS STREQUAL "musl")
  execute_process(COMMAND gcc -print-multiarch OUTPUT_VARIABLE multiarch OUTPUT_STRIP_TRAILING_WHITESPACE)
  execute_process(COMMAND gcc -dumpversion OUTPUT_VARIABLE gcc_version OUTPUT_STRIP_TRAILING_WHITESPACE)
  string(REPLACE gnu musl musl ${multiarch})
  set(CMAKE_C_COMPILER musl-gcc)
  set(CMAKE_CXX_COMPILER g++)
  # Of C++ the headers only, templates and constants, without what they set for their own C library.
  set(CMAKE_CXX_FLAGS_INIT "-include ${CMAKE_CURRENT_LIST_DIR}/musl.h -nostdinc++ -isystem /usr/include/c++/${gcc_version} \
-isystem /usr/include/${multiarch}/c++/${gcc_version} -specs=/usr/lib/${musl}/musl-gcc.specs")
  return()
endif()
list(FILTER cross_table INCLUDE REGEX "^${ATC_CROSS}[|]")
if(NOT cross_table)
  message(FATAL_ERROR "ATC_CROSS is '${ATC_CROSS}': expected i386, armhf, aarch64, powerpc, s390x or musl")
endif()
string(REPLACE "|" ";" cross_row "${cross_table}")
list(GET cross_row 2 cross_triplet)
list(GET cross_row 3 cross_emulator)
if(ATC_CROSS_COMPILER STREQUAL "clang")
  set(CMAKE_C_COMPILER clang)
  set(CMAKE_CXX_COMPILER clang++)
  set(CMAKE_C_COMPILER_TARGET ${cross_triplet})
  set(CMAKE_CXX_COMPILER_TARGET ${cross_triplet})
else()
  set(CMAKE_C_COMPILER ${cross_triplet}-gcc)
  set(CMAKE_CXX_COMPILER ${cross_triplet}-g++)
endif()
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
if(cross_emulator)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${cross_emulator})
endif()
