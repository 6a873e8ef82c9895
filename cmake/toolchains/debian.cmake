# One of Debian's cross compilers; the files beside this one set the triplet and include it. Headers, libraries and
# packages are taken only from the target's root, so that nothing of the building machine is used.
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR ${triplet})
set(CMAKE_SYSTEM_NAME Linux)

set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

list(APPEND CMAKE_FIND_ROOT_PATH /usr/${triplet}) # after a staging directory that the caller names
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
