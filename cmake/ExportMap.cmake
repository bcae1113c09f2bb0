# SPDX-License-Identifier: MIT
# Writes the linker's version script FILE: the functions that the public headers in FOLDER declare are
# exported, and nothing else is. Done anew when one of the headers changes.
function(write_export_map file folder)
  file(GLOB headers CONFIGURE_DEPENDS "${folder}/*.h")
  set(names "")
  set(labelled "")
  foreach(header ${headers})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_"${header}")
    file(READ "${header}" text)
    string(REGEX REPLACE "//[^\n]*" "" text "${text}")
    # A semicolon would part the text where CMake takes it for a list.
    string(REPLACE ";" "@" text "${text}")
    string(REGEX MATCHALL
      "\n[A-Za-z][A-Za-z0-9_ *\n]*[ *\n][A-Za-z0-9_]+\\([^@()]*\\)( __asm__\\([^)]*\\))?@" declarations "${text}")
    foreach(declaration ${declarations})
      string(REGEX REPLACE "^[^(]*[ *\n]([A-Za-z0-9_]+)\\(.*" "\\1" name "${declaration}")
      # A function with C++ linkage names its symbol where it is declared to C.
      if(declaration MATCHES "__asm__\\(\"([^\"]+)\"\\)")
        list(APPEND labelled ${name})
        set(name "${CMAKE_MATCH_1}")
      endif()
      list(APPEND names "${name}")
    endforeach()
  endforeach()
  list(REMOVE_ITEM names ${labelled})
  list(REMOVE_DUPLICATES names)
  list(SORT names)
  list(JOIN names ";\n    " names)
  file(CONFIGURE OUTPUT "${file}" CONTENT "{\n  global:\n    ${names};\n  local:\n    *;\n};\n" @ONLY)
endfunction()
