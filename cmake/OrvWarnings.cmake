# OrvWarnings: the warnings for all code of this project. CI turns them into errors (CMAKE_COMPILE_WARNING_AS_ERROR).
# They are not exported: users choose their own warnings.
add_library(OrvWarnings INTERFACE)
target_compile_options(
  OrvWarnings
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wformat=2
            -Wshadow
            -Wconversion
            -Wsign-conversion
            -Wold-style-cast)
