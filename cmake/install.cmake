# What `cmake --install` lays down.

install(TARGETS KTRepositoryHandler EXPORT KTRepositoryHandlerTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS mountwarden RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

list(TRANSFORM foundation_headers PREPEND ktutils/src/ OUTPUT_VARIABLE foundation_header_files)
install(FILES ${foundation_header_files} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ktutils)

# Installed, the two rooms lie side by side, so a header of one names a header of the other by that place;
# callers then need no include directory but the one they come from.
list(JOIN foundation_headers "|" foundation_names)
foreach(header IN LISTS library_headers)
  file(READ repositoryhandler/src/libs/${header} text)
  string(REGEX REPLACE "#include \"(${foundation_names})\"" "#include \"../ktutils/\\1\"" text "${text}")
  file(CONFIGURE OUTPUT include/repositoryhandler/${header} CONTENT "${text}" @ONLY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS repositoryhandler/src/libs/${header})
  install(FILES ${PROJECT_BINARY_DIR}/include/repositoryhandler/${header}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/repositoryhandler)
endforeach()

set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/KTRepositoryHandler)
install(EXPORT KTRepositoryHandlerTargets NAMESPACE KT:: DESTINATION ${package_directory}
        FILE KTRepositoryHandlerConfig.cmake)
write_basic_package_version_file(KTRepositoryHandlerConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KTRepositoryHandlerConfigVersion.cmake DESTINATION ${package_directory})

file(RELATIVE_PATH pkgconfig_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/KTRepositoryHandler.pc.in KTRepositoryHandler.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/KTRepositoryHandler.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES docs/mountwarden.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
