# 64-bit big-endian s390x with Debian's cross compiler (package g++-s390x-linux-gnu).
set(triplet s390x-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
