# OrvPrefixMap: installed files must not contain a directory of the building machine. Debug information and __FILE__
# therefore name the sources from the top of the tree. A debugger that is started there finds them.
include(CheckCXXCompilerFlag)

add_library(OrvPrefixMap INTERFACE)
foreach(kind debug macro)
  set(flag -f${kind}-prefix-map)
  orv_unless_given(wanted "-f(${kind}|file)-prefix-map")
  string(MAKE_C_IDENTIFIER "ORV_HAS${flag}" has)
  check_cxx_compiler_flag(${flag}=a=b ${has})
  if(${has} AND wanted)
    # If two prefixes match, the compiler uses the last: the build tree may be inside the source tree.
    target_compile_options(OrvPrefixMap INTERFACE ${flag}=${PROJECT_SOURCE_DIR}=. ${flag}=${PROJECT_BINARY_DIR}=./build)
  endif()
endforeach()
