# OrvLargeFiles: on 32-bit systems, 64-bit file offsets and times. Without them the status of a file over 2 GiB or
# beyond the year 2038 cannot be read, and the listing of a directory may end early. 64-bit systems have both anyway.
option(ORV_LARGE_FILES "On 32-bit systems, use 64-bit file offsets and times; OFF for C libraries that lack them" ON)

add_library(OrvLargeFiles INTERFACE)
if(ORV_LARGE_FILES AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(OrvLargeFiles INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
