# SPDX-License-Identifier: MIT
# The library as hosts see it, its static twin for the tests, and the installed package.
include(ExportMap)
set(exports "${CMAKE_CURRENT_BINARY_DIR}/ipplayout.map")
write_export_map("${exports}" "${CMAKE_CURRENT_SOURCE_DIR}/include/ipplayout")

add_library(ipplayout SHARED $<TARGET_OBJECTS:ipplayout_objects>)
add_library(ipplayout::ipplayout ALIAS ipplayout)
set_target_properties(ipplayout PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  LINK_DEPENDS "${exports}")
target_include_directories(ipplayout INTERFACE
  "$<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>"
  "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
target_link_libraries(ipplayout PRIVATE Threads::Threads PkgConfig::PCAP PkgConfig::MNL)
# Programs of the build tree find the library where it was built; the installed ones have no run path.
target_link_options(ipplayout INTERFACE "$<BUILD_INTERFACE:LINKER:-rpath,${CMAKE_CURRENT_BINARY_DIR}>")
# A host's own function of the name of one of ours must not take over our calls to it.
target_link_options(ipplayout PRIVATE LINKER:-Bsymbolic-functions)
target_link_options(ipplayout PRIVATE "LINKER:--version-script=${exports}" LINKER:--no-undefined)
if(IPPLAYOUT_SANITIZE)
  # The sanitizer runtime comes with the executable that loads the library.
  set_target_properties(ipplayout PROPERTIES LINK_OPTIONS "LINKER:--version-script=${exports}")
endif()

add_library(ipplayout_static STATIC $<TARGET_OBJECTS:ipplayout_objects>)
target_include_directories(ipplayout_static PUBLIC
  "${CMAKE_CURRENT_SOURCE_DIR}" "${CMAKE_CURRENT_SOURCE_DIR}/include")
target_link_libraries(ipplayout_static PUBLIC Threads::Threads PkgConfig::PCAP PkgConfig::MNL)
set_target_properties(ipplayout_static PROPERTIES EXCLUDE_FROM_ALL ON)

include(CMakePackageConfigHelpers)
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/ipplayout")
install(TARGETS ipplayout EXPORT ipplayoutTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY include/ipplayout DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT ipplayoutTargets NAMESPACE ipplayout:: DESTINATION ${package_dir}
  COMPONENT development)
configure_package_config_file(cmake/ipplayoutConfig.cmake.in
  "${CMAKE_CURRENT_BINARY_DIR}/ipplayoutConfig.cmake" INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/ipplayoutConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/ipplayoutConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/ipplayoutConfigVersion.cmake"
  DESTINATION ${package_dir} COMPONENT development)
# The package may be installed anywhere, so the file finds its prefix from where it is.
file(RELATIVE_PATH PKGCONFIG_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" PKGCONFIG_TO_PREFIX "${PKGCONFIG_TO_PREFIX}")
configure_file(cmake/ipplayout.pc.in "${CMAKE_CURRENT_BINARY_DIR}/ipplayout.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/ipplayout.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)
