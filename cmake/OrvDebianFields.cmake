# CPack runs this after it made the packages, and corrects what CPack 3.25 has no settings for:
# - The packages of the libraries and of their debug information can be installed for several architectures at once. They
#   run no script; a trigger calls ldconfig.
# - The packages of debug information name their files relative to the root, and not by the path of the build tree. They
#   have the documentation of the packages that they belong to.
foreach(package ${CPACK_PACKAGE_FILES})
  get_filename_component(name ${package} NAME)
  string(REGEX REPLACE "_.*" "" name ${name})
  if(name MATCHES "^liborvfileutils0|-dbgsym$")
    set(content ${CPACK_TEMPORARY_DIRECTORY}/content)
    file(REMOVE_RECURSE ${content})
    execute_process(COMMAND dpkg-deb --raw-extract ${package} ${content} COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE ${content}/DEBIAN/postinst ${content}/DEBIAN/postrm)
    file(READ ${content}/DEBIAN/control control)
    if(name MATCHES "^liborvfileutils0")
      string(REGEX REPLACE "(^|\n)(Architecture: [^\n]*\n)" "\\1\\2Multi-Arch: same\n" control "${control}")
    endif()
    string(REPLACE "\nPackage-Type: ddeb\n" "\n" control "${control}")
    file(WRITE ${content}/DEBIAN/control "${control}")
    if(name MATCHES "^(.*)-dbgsym$")
      set(documented ${CMAKE_MATCH_1})
      file(READ ${content}/DEBIAN/md5sums sums)
      string(REGEX REPLACE "  [^\n]*/usr/lib/debug/" "  usr/lib/debug/" sums "${sums}")
      file(WRITE ${content}/DEBIAN/md5sums "${sums}")
      file(GLOB_RECURSE files ${content}/usr/lib/debug/*)
      file(CHMOD ${files} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
      file(MAKE_DIRECTORY ${content}/usr/share/doc)
      file(CREATE_LINK ${documented} ${content}/usr/share/doc/${name} SYMBOLIC)
    endif()
    execute_process(COMMAND dpkg-deb --root-owner-group --build ${content} ${package} OUTPUT_QUIET
                    COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${content})
  endif()
endforeach()
