# OrvPrefixMap: no directory of the building machine in what is installed: debug information and __FILE__ name the
# sources from the top of the tree. A debugger started there finds them.
include(CheckCXXCompilerFlag)

add_library(OrvPrefixMap INTERFACE)
foreach(flag -fdebug-prefix-map -fmacro-prefix-map)
  string(MAKE_C_IDENTIFIER "ORV_HAS${flag}" has)
  check_cxx_compiler_flag(${flag}=a=b ${has})
  if(${has})
    # Of two that fit, the compiler takes the last: the build tree may lie in the source tree.
    target_compile_options(OrvPrefixMap INTERFACE ${flag}=${PROJECT_SOURCE_DIR}=. ${flag}=${PROJECT_BINARY_DIR}=./build)
  endif()
endforeach()
