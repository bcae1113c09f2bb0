# SPDX-License-Identifier: MIT
# Debian packages by CPack: the library, its development files, the tool where it is built, and the
# Python package, which needs both.
# `cpack -G DEB` in the build folder makes them all.
find_program(GZIP gzip REQUIRED)
set(maintainer "ipplayout authors <ipplayout@localhost>")

# Installs SOURCE, compressed as Debian wants it, as DESTINATION/NAME.gz.
function(install_compressed source name destination component)
  set(compressed "${CMAKE_CURRENT_BINARY_DIR}/packaging/${component}/${name}.gz")
  get_filename_component(folder "${compressed}" DIRECTORY)
  file(MAKE_DIRECTORY "${folder}")
  add_custom_command(OUTPUT "${compressed}"
    COMMAND sh -c "'${GZIP}' -9nc '${source}' > '${compressed}'"
    DEPENDS "${source}" VERBATIM)
  set_property(GLOBAL APPEND PROPERTY compressed_documents "${compressed}")
  install(FILES "${compressed}" DESTINATION "${destination}" COMPONENT ${component})
endfunction()

set(root "${PROJECT_SOURCE_DIR}")
install_compressed("${root}/docs/man/libipplayout.3" libipplayout.3 "${CMAKE_INSTALL_MANDIR}/man3"
  development)
set(packages runtime:libipplayout1 development:libipplayout-dev)
if(IPPLAYOUT_BUILD_HOST)
  list(APPEND packages tool:ipplay python:python3-ipplayout)
  install_compressed("${root}/docs/man/ipplay.1" ipplay.1 "${CMAKE_INSTALL_MANDIR}/man1" tool)
  install(FILES "${root}/host/completion/ipplay"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT tool)
  install(FILES "${root}/host/completion/ipplay.fish"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d" COMPONENT tool)
  install(FILES "${root}/host/completion/_ipplay"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions" COMPONENT tool)
  install(FILES "${root}/packaging/ipplay-lineup@.service" "${root}/packaging/ipplay-serve.service"
    DESTINATION lib/systemd/system COMPONENT tool)
  install(FILES "${root}/docs/fleet.md" "${root}/docs/json.md" "${root}/docs/measuring.md" "${root}/docs/openapi.json"
    "${root}/docs/recipes.md" "${root}/docs/security.md" "${root}/docs/serve.md" "${root}/packaging/README.Debian"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/ipplay" COMPONENT tool)
  install(FILES "${root}/examples/monitoring/alerts.yml" "${root}/examples/monitoring/dashboard.json"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/ipplay/examples/monitoring" COMPONENT tool)
  install(DIRECTORY "${root}/examples/fleet" DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/ipplay/examples" COMPONENT tool
    USE_SOURCE_PERMISSIONS)
  # In Debian's packages alone: elsewhere no Python would look there, and pip installs it.
  install(DIRECTORY "${root}/python/src/ipplayout" DESTINATION lib/python3/dist-packages COMPONENT python
    EXCLUDE_FROM_ALL FILES_MATCHING PATTERN "*.py" PATTERN "py.typed" PATTERN "__pycache__" EXCLUDE)
  install(FILES "${root}/docs/python.md" DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/python3-ipplayout"
    COMPONENT python EXCLUDE_FROM_ALL)
  install(DIRECTORY "${root}/examples/python/" COMPONENT python EXCLUDE_FROM_ALL
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/python3-ipplayout/examples"
    FILES_MATCHING PATTERN "*.py" PATTERN "*.ipynb" PATTERN "__pycache__" EXCLUDE PATTERN ".*" EXCLUDE)
endif()
foreach(pair ${packages})
  string(REPLACE ":" ";" pair "${pair}")
  list(GET pair 0 component)
  list(GET pair 1 package)
  set(documents "${CMAKE_INSTALL_DATADIR}/doc/${package}")
  install(FILES "${root}/packaging/copyright" DESTINATION "${documents}" COMPONENT ${component})
  install_compressed("${root}/CHANGELOG.md" changelog "${documents}" ${component})
endforeach()
get_property(compressed GLOBAL PROPERTY compressed_documents)
add_custom_target(compressed_documents ALL DEPENDS ${compressed})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "${maintainer}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(IPPLAYOUT_BUILD_HOST)
  list(APPEND CPACK_COMPONENTS_ALL tool python)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libipplayout1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
file(WRITE "${CMAKE_CURRENT_BINARY_DIR}/packaging/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${CMAKE_CURRENT_BINARY_DIR}/packaging/triggers")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "playout of transport streams as exact IP packets
 Plays an MPEG transport stream out of an Ethernet adapter as RTP or UDP over
 IPv4 or IPv6 at an exact bit rate, with every header field under control,
 replication, bursts, jitter and deliberate errors. This is the library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libipplayout-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libipplayout1 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "playout of transport streams, development files
 Headers, the CMake package and the pkg-config file of libipplayout, which
 plays MPEG transport streams out of an Ethernet adapter.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ipplay)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libipplayout1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS "iproute2, libcap2-bin")
set(CPACK_DEBIAN_TOOL_PACKAGE_SUGGESTS "ffmpeg")
set(CPACK_DEBIAN_TOOL_PACKAGE_CONTROL_EXTRA "${root}/packaging/postinst")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_CURRENT_BINARY_DIR}")
set(CPACK_COMPONENT_TOOL_DESCRIPTION
  "player of transport streams for tests of receivers and networks
 Plays an MPEG transport stream out of an Ethernet adapter as RTP or UDP over
 IPv4 or IPv6 at an exact bit rate: a file or a pipe, once or for ever, one
 stream or a thousand, clean or with the faults that a test asks for.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-ipplayout)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.11), libipplayout1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS "ipplay (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "iproute2, python3-pytest, python3-matplotlib")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA "${root}/packaging/python/postinst;${root}/packaging/python/prerm")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION
  "playout and measurement of transport streams from Python
 Plays MPEG transport streams as exact IP packets, any number at a time, and
 measures what arrives, with fixtures for tests of receivers by pytest.")
include(CPack)
