# What `cmake --install` lays down, all of it or one component: library, development, java (also in
# repositoryhandler/java), documentation, program. Each component is a Debian package (cmake/package.cmake).

install(TARGETS KTRepositoryHandler EXPORT KTRepositoryHandlerTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS mountwarden RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT program)

list(TRANSFORM foundation_headers PREPEND ktutils/src/ OUTPUT_VARIABLE foundation_header_files)
install(FILES ${foundation_header_files} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ktutils COMPONENT development)

# Installed, the two rooms lie side by side, so a header of one names a header of the other by that place;
# callers then need no include directory but the one they come from.
list(JOIN foundation_headers "|" foundation_names)
foreach(header IN LISTS library_headers)
  file(READ repositoryhandler/src/libs/${header} text)
  string(REGEX REPLACE "#include \"(${foundation_names})\"" "#include \"../ktutils/\\1\"" text "${text}")
  file(CONFIGURE OUTPUT include/repositoryhandler/${header} CONTENT "${text}" @ONLY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS repositoryhandler/src/libs/${header})
  install(FILES ${PROJECT_BINARY_DIR}/include/repositoryhandler/${header}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/repositoryhandler COMPONENT development)
endforeach()

set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/KTRepositoryHandler)
install(EXPORT KTRepositoryHandlerTargets NAMESPACE KT:: DESTINATION ${package_directory}
        FILE KTRepositoryHandlerConfig.cmake COMPONENT development)
write_basic_package_version_file(KTRepositoryHandlerConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KTRepositoryHandlerConfigVersion.cmake DESTINATION ${package_directory}
        COMPONENT development)

file(RELATIVE_PATH pkgconfig_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/KTRepositoryHandler.pc.in KTRepositoryHandler.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/KTRepositoryHandler.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

install(FILES docs/mountwarden.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
install(FILES docs/repository.cfg.5 docs/repositorypart.cfg.5
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT program)
install(FILES docs/libKTRepositoryHandler.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)

# They lie to each other as in the sources, so that the links between them hold.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(FILES examples/Documents.java examples/resources.cpp
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT documentation)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
        FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")

# systemd reads these directories under /usr and /usr/local, whatever the library directory is called there.
if(KT_SYSTEMD)
  install(FILES packaging/systemd/mountwarden@.service packaging/systemd/mountwarden@.timer
          DESTINATION lib/systemd/system COMPONENT program)
  install(FILES packaging/systemd/sysusers.conf
          DESTINATION lib/sysusers.d RENAME mountwarden.conf COMPONENT program)
  install(FILES packaging/systemd/tmpfiles.conf
          DESTINATION lib/tmpfiles.d RENAME mountwarden.conf COMPONENT program)
endif()
