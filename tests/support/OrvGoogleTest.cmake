# GTest::gmock and GTest::gtest_main: those of the system. For another machine and for the other std::string, they are
# built from the sources that Debian packages.
if(NOT CMAKE_CROSSCOMPILING AND ORV_CXX11_ABI)
  find_package(GTest REQUIRED)
  return()
endif()

set(ORV_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "Sources of GoogleTest (Debian package googletest)")
set(INSTALL_GTEST OFF)
set(BUILD_SHARED_LIBS OFF)
set(CMAKE_COMPILE_WARNING_AS_ERROR OFF) # the sources are not ours
add_subdirectory(${ORV_GOOGLETEST_SOURCE} googletest EXCLUDE_FROM_ALL)
unset(CMAKE_COMPILE_WARNING_AS_ERROR)
foreach(target gtest gtest_main gmock)
  target_compile_options(${target} PRIVATE -O0) # compiles in half the time
endforeach()
if(NOT ORV_CXX11_ABI)
  target_compile_definitions(gtest PUBLIC _GLIBCXX_USE_CXX11_ABI=0)
endif()
