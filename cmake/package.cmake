# SPDX-License-Identifier: MIT
# Debian packages, by `cpack -G DEB` in the build tree of a preset: libox<soversion>, libox-dev, oxtrack.

find_program(OX_GZIP gzip)
mark_as_advanced(OX_GZIP)
if(NOT OX_GZIP) # on no Debian
  return()
endif()

set(package_version ${PROJECT_VERSION}-0ox1)
set(package_maintainer "The ox authors <ox@example.org>")
set(package_runtime libox${PROJECT_VERSION_MAJOR})
set(package_development libox-dev)
set(package_tool oxtrack)

set(control ${CMAKE_CURRENT_BINARY_DIR}/debian)

# Directories look the same whatever the umask; CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS is subject to it. And the
# loader needs no search path to find libraries that packages installed.
file(CONFIGURE OUTPUT ${control}/staged.cmake @ONLY CONTENT [[
file(GLOB_RECURSE paths LIST_DIRECTORIES ON "${CPACK_TEMPORARY_DIRECTORY}/*")
foreach(path IN LISTS paths)
  if(IS_DIRECTORY "${path}" AND NOT IS_SYMLINK "${path}")
    file(CHMOD "${path}" PERMISSIONS
      OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  elseif(path MATCHES "/bin/oxtrack$")
    file(RPATH_REMOVE FILE "${path}") # as install scripts do
  endif()
endforeach()
]])
set(CPACK_PRE_BUILD_SCRIPTS ${control}/staged.cmake)

set(CPACK_COMPONENTS_ALL runtime development)
if(OX_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_CONTACT ${package_maintainer})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SOURCE ox)
set(CPACK_DEBIAN_PACKAGE_VERSION ${package_version})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# An unknown processor is left to CPack, which asks dpkg for this machine's.
set(needs "")
if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL armv7l)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  set(needs "\n\nThis build needs a processor with NEON.")
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL i686)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
  set(needs "\n\nThis build needs a processor with SSE2.")
endif()

# CPack 3.25 has no variable for the field Multi-Arch. It writes the section as it stands, so the field rides behind it.
set(same "")
if(CMAKE_INSTALL_LIBDIR MATCHES "^lib/[^/]+-linux-gnu[a-z]*$")
  set(same "\nMulti-Arch: same")
endif()

# The oldest C and C++ libraries that have every symbol version the binaries ask for: tests/package/debs.sh compares.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.17)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${package_runtime} (= ${package_version})")
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
  "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), ${package_runtime} (= ${package_version})")

# The first line is the short description; CPack indents the others.
set(about "\
ox is a C library for embedded Linux: matrices of eight scalar types, a
linear Kalman filter and a tracker that turns a detector's boxes into tracks
with stable identities. Its results are equal to the last bit on ARMv7,
AArch64, x86-64 and i686, and it needs nothing but the C library.
")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${package_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION "libs${same}")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "matrices, Kalman filter and box tracker - shared library
${about}
This package holds the shared library.${needs}")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${package_development})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION "libdevel${same}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "matrices, Kalman filter and box tracker - development files
${about}
This package holds the header, the static library and what CMake and
pkg-config need to find them.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ${package_tool})
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_DESCRIPTION "multi-object box tracker for MOTChallenge files
${about}
This package holds oxtrack, which reads a MOTChallenge detection file and
writes the tracks as a MOTChallenge result file.${needs}")

# The library's users depend on any version with its soname. CPack would write these two files itself, but with
# maintainer scripts in place of the trigger.
file(CONFIGURE OUTPUT ${control}/shlibs @ONLY
  CONTENT "libox ${PROJECT_VERSION_MAJOR} ${package_runtime} (>= ${PROJECT_VERSION})\n")
file(CONFIGURE OUTPUT ${control}/triggers CONTENT "activate-noawait ldconfig\n" @ONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${control}/shlibs ${control}/triggers)

# --- documents; only CPack installs them -----------------------------------------------------------------------

set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_SOURCE_DIR}/docs/oxtrack.1)

# The compressed bytes depend on nothing but the contents: packages of two architectures share these files.
function(package_gzip from to)
  execute_process(COMMAND ${OX_GZIP} -9nc ${from} OUTPUT_FILE ${to} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(READ ${PROJECT_SOURCE_DIR}/LICENSE license)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]+)\n+" copyright "${license}")
set(copyright ${CMAKE_MATCH_1})
string(REGEX REPLACE "^.*Copyright \\(c\\) [^\n]+\n+" "" license "${license}")
string(STRIP "${license}" license)
string(REPLACE "\n\n" "\n.\n" license "${license}")
string(REPLACE "\n" "\n " license "${license}")
file(CONFIGURE OUTPUT ${control}/copyright @ONLY CONTENT "\
Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: ox

Files: *
Copyright: ${copyright}
License: Expat
 ${license}
")

# One date for all build trees: SOURCE_DATE_EPOCH, or else that of the last change to CHANGELOG.md.
set(date_format "%a, %d %b %Y %H:%M:%S +0000")
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  string(TIMESTAMP date "${date_format}" UTC)
else()
  file(TIMESTAMP ${PROJECT_SOURCE_DIR}/CHANGELOG.md date "${date_format}" UTC)
endif()
file(CONFIGURE OUTPUT ${control}/changelog.Debian @ONLY CONTENT "\
ox (${package_version}) unstable; urgency=medium

  * Packages of ox ${PROJECT_VERSION}. What changed in ox itself is in changelog.gz.

 -- ${package_maintainer}  ${date}
")
package_gzip(${control}/changelog.Debian ${control}/changelog.Debian.gz)
package_gzip(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${control}/changelog.gz)

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  install(FILES ${control}/copyright ${control}/changelog.Debian.gz ${control}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package_${component}} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
if(OX_BUILD_TOOLS)
  package_gzip(${PROJECT_SOURCE_DIR}/docs/oxtrack.1 ${control}/oxtrack.1.gz)
  install(FILES ${control}/oxtrack.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool EXCLUDE_FROM_ALL)
endif()

include(CPack)
