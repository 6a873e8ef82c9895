# Debian packages of the files that `cmake --install` installs, one for each component. script/package builds them.
set(ORV_PACKAGE_CONTACT "" CACHE STRING "The maintainer of the packages: Name <address>")
set(ORV_PACKAGE_VERSION ${PROJECT_VERSION} CACHE STRING "The version of the packages, such as that of a snapshot")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvfileutils)
set(CPACK_PACKAGE_VERSION ${ORV_PACKAGE_VERSION})
set(CPACK_PACKAGE_CONTACT "${ORV_PACKAGE_CONTACT}")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/OrvDebianFiles.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/OrvDebianFields.cmake)

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # the first line of each description is its summary

set(CPACK_COMPONENTS_ALL runtime development documentation)
if(ORV_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(ORV_BUILD_EXAMPLES)
  list(APPEND CPACK_COMPONENTS_ALL statusboard)
endif()
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_STATUSBOARD_DEPENDS runtime)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY}) # the target's, in a cross build
set(CPACK_READELF_EXECUTABLE ${CMAKE_READELF})
set(CPACK_ORV_STRIP ${CMAKE_STRIP})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liborvfileutils0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
# What a program that was built with this package demands: the first version, snapshots included, whose interface is the
# same.
set(demanded "liborvfileutils0 (>= ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}.0~)")
file(WRITE ${PROJECT_BINARY_DIR}/shlibs "libOrvFileUtils 0 ${demanded}\nlibOrvStrUtils 0 ${demanded}\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers ${PROJECT_BINARY_DIR}/shlibs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "file-system utilities for embedded devices
Moves and copies files, makes directories, lists them with wildcards, writes
tables and HTML pages, reads name-value files, and reports every failure
through the log of the program.
.
This package contains the libraries libOrvFileUtils and libOrvStrUtils.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME liborvfileutils-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "file-system utilities for embedded devices (development)
Moves and copies files, makes directories, lists them with wildcards, writes
tables and HTML pages, reads name-value files, and reports every failure
through the log of the program.
.
This package contains the headers, the manual, files for CMake and pkg-config,
and substitutes for the log.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS orvfileutils-doc)

set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME orvfileutils-doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTATION_DESCRIPTION
    "file-system utilities for embedded devices (documentation)
This package contains the caveats of liborvfileutils0, every line that it
writes to the log, what other users of the machine can do to a program that
uses it, and an example program.")

set(CPACK_DEBIAN_STATUSBOARD_PACKAGE_NAME orv-statusboard)
set(CPACK_DEBIAN_STATUSBOARD_PACKAGE_SECTION utils)
file(WRITE ${PROJECT_BINARY_DIR}/conffiles "/etc/statusboard.conf\n")
set(CPACK_DEBIAN_STATUSBOARD_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/conffiles)
set(CPACK_DEBIAN_STATUSBOARD_DESCRIPTION
    "status page of a machine, updated by a service
The page shows load, file systems, network interfaces and the files of a
directory. It has a light and a dark look and fits on a phone. It is the
example program of liborvfileutils-dev.
.
The service is not enabled. To start it: systemctl enable --now statusboard")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME orvfile)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS liborvfileutils-dev)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "file-system utilities for embedded devices (command line)
Moves and copies files, makes directories, lists them with wildcards, writes
tables and HTML pages and reads name-value files, for shells and scripts.")

# dpkg-shlibdeps does not know the target's libraries; script/package names them instead.
if(NOT CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_STATUSBOARD_PACKAGE_SHLIBDEPS ON)
endif()

# Debian's changelog has one entry. Its date is that of SOURCE_DATE_EPOCH.
if(ORV_PACKAGE_CONTACT)
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  file(WRITE ${PROJECT_BINARY_DIR}/changelog
       "orvfileutils (${ORV_PACKAGE_VERSION}) unstable; urgency=medium

  * See CHANGELOG.md in the sources for the changes.

 -- ${ORV_PACKAGE_CONTACT}  ${date}
")
  foreach(component ${CPACK_COMPONENTS_ALL})
    string(TOUPPER ${component} part)
    install(FILES ${PROJECT_BINARY_DIR}/changelog
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${part}_PACKAGE_NAME} COMPONENT ${component})
  endforeach()
endif()

include(CPack)
