# The packages that orvfile needs: CLI11 and nlohmann-json, which are header libraries, and the C library libcsv.
# Sets ORV_TOOL_PACKAGES_FOUND. If it is ON, orvfile links OrvToolPackages.
include_guard(GLOBAL)
find_path(ORV_CLI11_INCLUDE CLI/CLI.hpp)
find_path(ORV_JSON_INCLUDE nlohmann/json.hpp)
find_path(ORV_LIBCSV_INCLUDE csv.h)
find_library(ORV_LIBCSV_LIBRARY csv)

# Header libraries work for every machine. Copying them to the build tree keeps out other headers of this machine.
function(orv_copy_headers variable folder)
  if(CMAKE_CROSSCOMPILING AND NOT ${variable})
    find_path(${variable}_HERE ${folder} NO_CMAKE_FIND_ROOT_PATH)
    if(${variable}_HERE)
      file(COPY ${${variable}_HERE}/${folder} DESTINATION ${PROJECT_BINARY_DIR}/header-only)
      set(${variable} ${PROJECT_BINARY_DIR}/header-only CACHE PATH "" FORCE)
    endif()
  endif()
endfunction()

orv_copy_headers(ORV_CLI11_INCLUDE CLI)
orv_copy_headers(ORV_JSON_INCLUDE nlohmann)

set(ORV_LIBCSV_SOURCE "" CACHE PATH "Sources of libcsv for targets without the library; downloaded if missing")
if(NOT ORV_LIBCSV_LIBRARY AND ORV_LIBCSV_SOURCE)
  if(NOT EXISTS ${ORV_LIBCSV_SOURCE}/libcsv.c)
    message(STATUS "Downloading the sources of libcsv to ${ORV_LIBCSV_SOURCE}")
    execute_process(COMMAND ${PROJECT_SOURCE_DIR}/script/fetch-libcsv ${ORV_LIBCSV_SOURCE} COMMAND_ERROR_IS_FATAL ANY)
  endif()
  enable_language(C)
  add_library(OrvLibCsv STATIC ${ORV_LIBCSV_SOURCE}/libcsv.c)
  target_link_libraries(OrvLibCsv PRIVATE OrvPrefixMap)
  target_include_directories(OrvLibCsv SYSTEM PUBLIC ${ORV_LIBCSV_SOURCE})
  set_target_properties(OrvLibCsv PROPERTIES COMPILE_WARNING_AS_ERROR OFF) # the sources are not ours
  set(ORV_LIBCSV_LIBRARY OrvLibCsv)
  set(ORV_LIBCSV_INCLUDE ${ORV_LIBCSV_SOURCE})
endif()

set(ORV_TOOL_PACKAGES_FOUND OFF)
if(ORV_CLI11_INCLUDE AND ORV_JSON_INCLUDE AND ORV_LIBCSV_INCLUDE AND ORV_LIBCSV_LIBRARY)
  set(ORV_TOOL_PACKAGES_FOUND ON)
  add_library(OrvToolPackages INTERFACE)
  target_include_directories(OrvToolPackages SYSTEM INTERFACE ${ORV_CLI11_INCLUDE} ${ORV_JSON_INCLUDE}
                                                              ${ORV_LIBCSV_INCLUDE})
  target_link_libraries(OrvToolPackages INTERFACE ${ORV_LIBCSV_LIBRARY})
else()
  message(STATUS "orvfile is not built: it needs CLI11, nlohmann-json and libcsv "
                 "(Debian: libcli11-dev nlohmann-json3-dev libcsv-dev)")
endif()
