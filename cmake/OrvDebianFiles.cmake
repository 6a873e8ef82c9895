# CPack runs this before it packs the installed files, which are in one directory for each package. Debian requires
# compressed manual pages and changelogs, and static libraries without debug information.
file(GLOB pages ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/man?/*
     ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/doc/*/changelog)
foreach(page ${pages})
  execute_process(COMMAND gzip -9nf ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
file(GLOB_RECURSE archives ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/lib/*.a)
foreach(archive ${archives})
  execute_process(COMMAND ${CPACK_ORV_STRIP} --strip-debug --enable-deterministic-archives ${archive}
                  COMMAND_ERROR_IS_FATAL ANY)
endforeach()
