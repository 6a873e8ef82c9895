# The files that `cmake --install` installs, in components: runtime, development, documentation, tools (see tools/ and
# man/) and statusboard (see examples/). They find each other by relative paths, so that an installation can be moved as
# a whole. pkg-config then needs --define-prefix.
include(CMakePackageConfigHelpers)
include(cmake/OrvInstallTemplate.cmake)

install(
  TARGETS OrvFileUtils OrvStrUtils
  EXPORT OrvFileUtilsTargets
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE COMPONENT development)
install(TARGETS OrvSafe DlogStderr DlogSyslog DlogMemory EXPORT OrvFileUtilsTargets ARCHIVE COMPONENT development)
install(FILES include/LxFileUtils.h strutils/LxStringUtils.h TYPE INCLUDE COMPONENT development)
install(FILES dlog/dlog.h dlog/dlog_memory.h safe/safe.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orv COMPONENT development)

install(FILES docs/caveats.md docs/diagnostics.md docs/security.md DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT documentation)
install(FILES examples/statusboard.cpp DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT documentation)

# For find_package(OrvFileUtils). Before version 1.0, any minor version may break programs.
set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/OrvFileUtils)
configure_package_config_file(cmake/OrvFileUtilsConfig.cmake.in ${PROJECT_BINARY_DIR}/OrvFileUtilsConfig.cmake
                              INSTALL_DESTINATION ${package_directory} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OrvFileUtilsConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(
  EXPORT OrvFileUtilsTargets
  NAMESPACE OrvFileUtils::
  DESTINATION ${package_directory}
  COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/OrvFileUtilsConfig.cmake ${PROJECT_BINARY_DIR}/OrvFileUtilsConfigVersion.cmake
        DESTINATION ${package_directory} COMPONENT development)

# For pkg-config. The directories are written out, because not every implementation knows that ${pcfiledir} is inside a
# sysroot already.
foreach(kind LIBDIR INCLUDEDIR)
  string(TOLOWER pc_${kind} variable)
  set(${variable} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(${variable} "${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
set(pc_string_abi "")
if(NOT ORV_CXX11_ABI)
  set(pc_string_abi " -D_GLIBCXX_USE_CXX11_ABI=0")
endif()
foreach(name OrvFileUtils OrvSafe OrvStrUtils)
  orv_install_template(cmake/${name}.pc.in development ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
