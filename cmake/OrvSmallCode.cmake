# OrvSmallCode: what makes the libraries small on a device: unused template instances are dropped at link time, and the
# file is laid out for 4 KiB pages where the linker would reserve 64 KiB. Use it with CMAKE_BUILD_TYPE=MinSizeRel. Not for
# kernels with larger pages, which cannot map such a file.
option(ORV_SMALL_CODE "Drop unused sections and lay the libraries out for 4 KiB pages" OFF)

add_library(OrvSmallCode INTERFACE)
if(ORV_SMALL_CODE)
  target_compile_options(OrvSmallCode INTERFACE -ffunction-sections -fdata-sections)
  target_link_options(OrvSmallCode INTERFACE LINKER:--gc-sections LINKER:-z,max-page-size=4096 LINKER:-O1)
endif()
