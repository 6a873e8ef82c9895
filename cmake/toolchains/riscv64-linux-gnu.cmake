# 64-bit RISC-V with Debian's cross compiler (package g++-riscv64-linux-gnu).
set(triplet riscv64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
