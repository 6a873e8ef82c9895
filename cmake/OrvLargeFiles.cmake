# OrvLargeFiles: 64-bit file offsets and times on 32-bit systems. Without them, the status of a file over 2 GiB or with
# a date after 2038 cannot be read, and the listing of a directory may end early. 64-bit systems always have both.
option(ORV_LARGE_FILES "Use 64-bit file offsets and times on 32-bit systems; OFF if the C library lacks them" ON)

add_library(OrvLargeFiles INTERFACE)
if(ORV_LARGE_FILES AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(OrvLargeFiles INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
