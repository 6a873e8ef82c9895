# Properties that the targets of this project share.

# orv_unless_given(RESULT REGEX): true if no flag of the caller matches. Options of a target come after the caller's
# flags and would override them.
function(orv_unless_given result regex)
  string(TOUPPER "${CMAKE_BUILD_TYPE}" type)
  get_directory_property(options COMPILE_OPTIONS)
  if("${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${type}} ${options}" MATCHES "${regex}")
    set(${result} FALSE PARENT_SCOPE)
  else()
    set(${result} TRUE PARENT_SCOPE)
  endif()
endfunction()

include(cmake/OrvWarnings.cmake)
include(cmake/OrvHardening.cmake)
include(cmake/OrvLargeFiles.cmake)
include(cmake/OrvSmallCode.cmake)
include(cmake/OrvPrefixMap.cmake)

# orv_standard(TARGET YEAR): uses this C++ standard, without the compiler's extensions.
function(orv_standard target year)
  set_target_properties(${target} PROPERTIES CXX_STANDARD ${year} CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
endfunction()

# orv_product(TARGET YEAR): sets the properties of everything that is shipped.
function(orv_product target year)
  orv_standard(${target} ${year})
  # Without a path of the build tree: its length would change the installed file.
  set_target_properties(${target} PROPERTIES BUILD_RPATH_USE_ORIGIN ON)
  # The functions let std::bad_alloc pass, also if the rest of a project is compiled with -fno-exceptions.
  target_compile_options(${target} PRIVATE -fexceptions)
  foreach(part OrvWarnings OrvHardening OrvLargeFiles OrvPrefixMap)
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:${part}>)
  endforeach()
  if(NOT ORV_CXX11_ABI)
    # Public, because the program must use the same std::string as the exported functions.
    target_compile_definitions(${target} PUBLIC _GLIBCXX_USE_CXX11_ABI=0)
  endif()
endfunction()

# Not what add_library() does without a word: in a parent project that says nothing, that would be static libraries.
set(ORV_LIBRARY_KIND SHARED)
if(DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS)
  set(ORV_LIBRARY_KIND STATIC)
endif()

# orv_add_library(NAME SOURCE): adds a library. A shared one has the SONAME NAME.so.0 and a reviewed list of exports.
function(orv_add_library name source)
  add_library(${name} ${ORV_LIBRARY_KIND} ${source})
  add_library(OrvFileUtils::${name} ALIAS ${name})
  orv_product(${name} 11)
  set(exports ${PROJECT_SOURCE_DIR}/cmake/${name}.map)
  target_link_options(${name} PRIVATE "SHELL:-Xlinker \"--version-script=${exports}\"") # LINKER: splits at commas
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:OrvSmallCode>)
  set_target_properties(
    ${name}
    PROPERTIES VERSION ${PROJECT_VERSION}
               SOVERSION 0
               INSTALL_RPATH "$ORIGIN" # one library finds the other beside it
               LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib
               ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib
               LINK_DEPENDS ${exports})
endfunction()

# orv_add_safe(SOURCE...): adds the safe companion, a static library.
function(orv_add_safe)
  add_library(OrvSafe STATIC ${ARGN})
  add_library(OrvFileUtils::OrvSafe ALIAS OrvSafe)
  orv_product(OrvSafe 11)
  target_include_directories(OrvSafe PRIVATE ${PROJECT_SOURCE_DIR}/dlog)
  target_link_libraries(OrvSafe PUBLIC OrvFileUtils PRIVATE OrvStrUtils $<BUILD_INTERFACE:OrvSmallCode>)
  set_target_properties(OrvSafe PROPERTIES POSITION_INDEPENDENT_CODE ON
                                           ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
endfunction()

# Programs find the headers of the log and of the companion in a folder of their own, because the log service of a device may have a dlog.h
# too. The build tree has the same folder as an installation.
foreach(header dlog/dlog.h dlog/dlog_memory.h safe/safe.h)
  get_filename_component(name ${header} NAME)
  configure_file(${PROJECT_SOURCE_DIR}/${header} ${PROJECT_BINARY_DIR}/include/orv/${name} COPYONLY)
endforeach()

# orv_log_headers(TARGET): programs that link the target find <orv/dlog.h>.
function(orv_log_headers target)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
                                              $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endfunction()

# orv_add_dlog(NAME SOURCE): adds a substitute for the device's log.
function(orv_add_dlog name source)
  add_library(${name} STATIC ${source} ${PROJECT_SOURCE_DIR}/dlog/dlog_pipe.cpp
                             ${PROJECT_SOURCE_DIR}/dlog/dlog_text.cpp)
  add_library(OrvFileUtils::${name} ALIAS ${name})
  orv_product(${name} 11)
  orv_log_headers(${name})
  # Asked for from the start, the function is found in any order of the libraries.
  target_link_options(${name} INTERFACE LINKER:-u,__dlog_printf)
  # CMake refuses a program that links two substitutes. The linker would take the first one without a word.
  set_target_properties(${name} PROPERTIES INTERFACE_ORV_LOG ${name} COMPATIBLE_INTERFACE_STRING ORV_LOG)
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON
                                           ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
endfunction()

# orv_host_program(PROGRAM LIBRARY...): a program that uses the libraries. One of its sources, or LIBRARY, must define
# __dlog_printf.
function(orv_host_program program)
  target_include_directories(${program} PRIVATE ${PROJECT_SOURCE_DIR}/dlog)
  target_link_libraries(${program} PRIVATE OrvFileUtils OrvStrUtils OrvWarnings ${ARGN})
  # The libraries must find the functions that the program defines for them.
  set_target_properties(${program} PROPERTIES ENABLE_EXPORTS ON)
endfunction()
