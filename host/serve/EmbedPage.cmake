# SPDX-License-Identifier: MIT
# Writes OUTPUT, a C++ source with all FILES: each "PATH=SOURCE", PATH as the page asks for it.
set(types
  html text/html css text/css js text/javascript mjs text/javascript txt text/plain json application/json
  svg image/svg+xml png image/png ico image/x-icon)
set(arrays "")
set(table "")
set(number 0)
foreach(file ${FILES})
  string(REGEX MATCH "^([^=]*)=(.*)$" matched "${file}")
  set(path "${CMAKE_MATCH_1}")
  set(source "${CMAKE_MATCH_2}")
  string(REGEX MATCH "[^.]*$" ending "${path}")
  list(FIND types "${ending}" place)
  if(place LESS 0)
    message(FATAL_ERROR "${path}: no content type is known for .${ending}")
  endif()
  math(EXPR place "${place} + 1")
  list(GET types ${place} type)
  if(type MATCHES "^text/")
    string(APPEND type "; charset=utf-8")
  endif()
  file(SHA256 "${source}" hash)
  string(SUBSTRING "${hash}" 0 32 hash)
  file(READ "${source}" bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  string(APPEND arrays "constexpr char kFile${number}[] = {${bytes}'\\0'};\n")
  string(APPEND table "    {\"${path}\", \"${type}\", \"\\\"${hash}\\\"\", {kFile${number}, sizeof kFile${number} - 1}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE "${OUTPUT}" "#include \"host/serve/page_files.h\"

namespace ipplay::serve {
namespace {

${arrays}
constexpr PageFile kFiles[] = {
${table}};

}  // namespace

std::span<const PageFile> PageFiles() {
  return kFiles;
}

}  // namespace ipplay::serve
")
