# The files that `cmake --install` installs, in three components: runtime, development and tools (see tools/ and man/).
# They find each other by relative paths, so that an installation can be moved as a whole.
include(CMakePackageConfigHelpers)

install(
  TARGETS OrvFileUtils OrvStrUtils
  EXPORT OrvFileUtilsTargets
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS DlogStderr DlogSyslog DlogMemory EXPORT OrvFileUtilsTargets ARCHIVE COMPONENT development)
install(FILES include/LxFileUtils.h strutils/LxStringUtils.h TYPE INCLUDE COMPONENT development)
install(FILES dlog/dlog.h dlog/dlog_memory.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orv COMPONENT development)

# For find_package(OrvFileUtils). Before version 1.0, any minor version may break programs.
set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/OrvFileUtils)
configure_package_config_file(cmake/OrvFileUtilsConfig.cmake.in ${PROJECT_BINARY_DIR}/OrvFileUtilsConfig.cmake
                              INSTALL_DESTINATION ${package_directory} NO_SET_AND_CHECK_MACRO
                              NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OrvFileUtilsConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(
  EXPORT OrvFileUtilsTargets
  NAMESPACE OrvFileUtils::
  DESTINATION ${package_directory}
  COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/OrvFileUtilsConfig.cmake ${PROJECT_BINARY_DIR}/OrvFileUtilsConfigVersion.cmake
        DESTINATION ${package_directory} COMPONENT development)

# For pkg-config, which sets ${pcfiledir} to the directory of the file.
file(RELATIVE_PATH pc_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "^(.*[^/])/*$" "\${pcfiledir}/\\1" pc_prefix "${pc_prefix}")
set(pc_includedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(pc_includedir "${CMAKE_INSTALL_INCLUDEDIR}")
endif()
set(pc_string_abi "")
if(NOT ORV_CXX11_ABI)
  set(pc_string_abi " -D_GLIBCXX_USE_CXX11_ABI=0")
endif()
foreach(name OrvFileUtils OrvStrUtils)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
