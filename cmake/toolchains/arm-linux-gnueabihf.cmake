# 32-bit ARM with hardware floating point with Debian's cross compiler (package g++-arm-linux-gnueabihf).
set(triplet arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
