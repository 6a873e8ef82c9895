# GTest::gmock and GTest::gtest_main: those of the system. For another machine, another standard library and the other
# std::string, they are built from the sources that Debian packages.
set(build OFF)
if(CMAKE_CROSSCOMPILING OR NOT ORV_CXX11_ABI)
  set(build ON)
endif()
option(ORV_BUILD_GOOGLETEST "Build GoogleTest from its sources instead of using that of the system" ${build})
if(NOT ORV_BUILD_GOOGLETEST)
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
