# OrvWarnings: the warnings under which everything here compiles. CI turns them into errors
# (CMAKE_COMPILE_WARNING_AS_ERROR). Not exported: a user's own warnings are the user's business.
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
