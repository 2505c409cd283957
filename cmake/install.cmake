# SPDX-License-Identifier: MIT
include(CMakePackageConfigHelpers)

install(TARGETS ox ox_static EXPORT oxTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES include/ox.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
if(OX_BUILD_TOOLS)
  install(TARGETS oxtrack RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  # The packages hold it compressed, as part of the tool.
  install(FILES docs/oxtrack.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT manual)
endif()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ox)
install(EXPORT oxTargets NAMESPACE ox:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(cmake/oxConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/oxConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/oxConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/oxConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/oxConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT development)

# The library directory may be several levels deep (lib/x86_64-linux-gnu).
file(RELATIVE_PATH up_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" up_to_prefix "${up_to_prefix}")
configure_file(cmake/ox.pc.in ox.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ox.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
