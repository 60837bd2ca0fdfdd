# Run by CPack when each component stands in a tree of its own, before the packages are made of the trees: compresses
# what Debian wants compressed, and adds to the packages' dependencies what their programs and libraries need.

set(trees ${CPACK_TEMPORARY_INSTALL_DIRECTORY})

file(GLOB texts ${trees}/*/usr/share/man/man?/* ${trees}/*/usr/share/doc/*/changelog)
execute_process(COMMAND gzip -9n ${texts} COMMAND_ERROR_IS_FATAL ANY)

# CPack itself asks for no package that has our library: it is in none that is installed yet. dpkg-shlibdeps takes the
# package's name from the library's own shlibs file, and wants something like a source package around itself.
set(source_package ${CPACK_TEMPORARY_DIRECTORY}/shlibdeps)
file(WRITE ${source_package}/debian/control "Source: ${CPACK_DEBIAN_PACKAGE_SOURCE}\n")
file(MAKE_DIRECTORY ${source_package}/built/DEBIAN)
file(GLOB library ${trees}/library/usr/lib/*/*.so.*.*)
cmake_path(GET library PARENT_PATH library_directory)

# add_needs(COMPONENT FILE)
function(add_needs component file)
  file(COPY ${file} DESTINATION ${source_package}/built)
  cmake_path(GET file FILENAME name)
  execute_process(
      COMMAND dpkg-shlibdeps -O -l${library_directory}
              -L${CMAKE_CURRENT_LIST_DIR}/../packaging/debian/shlibs built/${name}
      WORKING_DIRECTORY ${source_package}
      OUTPUT_VARIABLE needs OUTPUT_STRIP_TRAILING_WHITESPACE
      COMMAND_ERROR_IS_FATAL ANY)
  string(REPLACE "shlibs:Depends=" "" needs "${needs}")
  list(PREPEND CPACK_DEBIAN_${component}_PACKAGE_DEPENDS "${needs}")
  list(JOIN CPACK_DEBIAN_${component}_PACKAGE_DEPENDS ", " depends)
  set(CPACK_DEBIAN_${component}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
endfunction()
add_needs(LIBRARY ${library})
add_needs(PROGRAM ${trees}/program/usr/bin/mountwarden)
