# CPack runs this before it packs the installed files, which are in one directory for each package. Debian requires
# compressed manual pages and changelogs.
file(GLOB pages ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/man?/*
     ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/doc/*/changelog)
foreach(page ${pages})
  execute_process(COMMAND gzip -9nf ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
