# OrvHardening: protections of the shipped libraries, as far as the compiler supports them. Sanitizer builds do not use
# it: they have stronger checks, which _FORTIFY_SOURCE would bypass.
include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)

option(ORV_HARDEN "Build the libraries with stack protector, _FORTIFY_SOURCE and full RELRO" ON)

add_library(OrvHardening INTERFACE)
if(ORV_HARDEN AND NOT ORV_SANITIZE)
  foreach(flag -fstack-protector-strong -fstack-clash-protection)
    string(MAKE_C_IDENTIFIER "ORV_HAS${flag}" has)
    check_cxx_compiler_flag(${flag} ${has})
    if(${has})
      target_compile_options(OrvHardening INTERFACE ${flag})
    endif()
  endforeach()
  # glibc accepts _FORTIFY_SOURCE only with optimisation.
  target_compile_options(
    OrvHardening INTERFACE "$<$<NOT:$<CONFIG:Debug>>:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>")
  foreach(flag relro now noexecstack)
    check_linker_flag(CXX "LINKER:-z,${flag}" ORV_HAS_LINKER_${flag})
    if(ORV_HAS_LINKER_${flag})
      target_link_options(OrvHardening INTERFACE "LINKER:-z,${flag}")
    endif()
  endforeach()
endif()
