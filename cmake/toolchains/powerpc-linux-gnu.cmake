# 32-bit big-endian PowerPC with Debian's cross compiler (package g++-powerpc-linux-gnu).
set(triplet powerpc-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
