# orv_install_template(TEMPLATE COMPONENT DESTINATION): installs a file whose variables @NAME@ are replaced. @prefix@ is
# the directory that the installation itself is given, such as by `cmake --install --prefix`; @pc_prefix@ is the same,
# quoted for pkg-config.
function(orv_install_template template component destination)
  get_filename_component(name ${template} NAME_WLE) # without ".in"
  set(directory "\${CMAKE_INSTALL_PREFIX}/${destination}")
  if(IS_ABSOLUTE "${destination}")
    set(directory "${destination}")
  endif()
  set(prefix "@prefix@")
  set(pc_prefix "@pc_prefix@")
  set(with_prefix_left ${PROJECT_BINARY_DIR}/templates/${name})
  configure_file(${template} ${with_prefix_left} @ONLY)
  install(
    CODE "string(REGEX REPLACE \"/+\$\" \"\" prefix \"\${CMAKE_INSTALL_PREFIX}\")
string(REGEX REPLACE \"([ \\t'\\\"\\\\\\\\])\" \"\\\\\\\\\\\\1\" pc_prefix \"\${prefix}\")
string(MD5 place \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\") # so that installations may run at the same time
configure_file([==[${with_prefix_left}]==] \"${PROJECT_BINARY_DIR}/templates/\${place}/${name}\" @ONLY)
file(INSTALL DESTINATION \"${directory}\" TYPE FILE FILES \"${PROJECT_BINARY_DIR}/templates/\${place}/${name}\")
file(REMOVE_RECURSE \"${PROJECT_BINARY_DIR}/templates/\${place}\")"
    COMPONENT ${component})
endfunction()
