# OrvSmallCode: makes the libraries small for a device. The linker drops unused template instances and lays the file out
# for pages of 4 KiB instead of 64 KiB. Use it with CMAKE_BUILD_TYPE=MinSizeRel. Do not use it for kernels with larger
# pages, which cannot map such a file.
option(ORV_SMALL_CODE "Drop unused sections, and lay the libraries out for 4 KiB pages" OFF)

add_library(OrvSmallCode INTERFACE)
if(ORV_SMALL_CODE)
  target_compile_options(OrvSmallCode INTERFACE -ffunction-sections -fdata-sections)
  target_link_options(OrvSmallCode INTERFACE LINKER:--gc-sections LINKER:-z,max-page-size=4096 LINKER:-O1)
endif()
