# SPDX-License-Identifier: MIT
# Compiler settings of our own build: the language and the hardening of every folder, the warnings on
# a target that only our own code links. None of them reaches a user of the package.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# CMake's own run paths end with an empty entry, which leaves room for the installed one and stands for
# the current folder. cmake/Library.cmake gives programs of the build tree a clean one.
set(CMAKE_SKIP_BUILD_RPATH ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

add_library(ipplayout_build_settings INTERFACE)
target_compile_options(ipplayout_build_settings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-align -Wformat=2
  -Wundef -Wmissing-declarations
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC bug 105651: false alarms in std::string's operator+.
  target_compile_options(ipplayout_build_settings INTERFACE -Wno-restrict)
endif()
if(IPPLAYOUT_WARNINGS_AS_ERRORS)
  target_compile_options(ipplayout_build_settings INTERFACE -Werror)
endif()
if(IPPLAYOUT_SANITIZE)
  add_compile_options(-fsanitize=${IPPLAYOUT_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${IPPLAYOUT_SANITIZE})
else()
  # Hardening: the input files, frames and command lines that reach this code are not trusted.
  add_compile_options(-fstack-protector-strong -fstack-clash-protection -fcf-protection
                      $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>)
  add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
  include(CheckPIESupported)
  check_pie_supported()
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()
