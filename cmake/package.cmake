# The Debian packages, built by CPack: one for each component of cmake/install.cmake. Read under the preset `package`,
# whose prefix is /usr; scripts/package runs it.

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # CPack would put the project's in front of each package's own
set(CPACK_DEBIAN_PACKAGE_SOURCE repositoryhandler)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Repository handler maintainers <maintainers@repositoryhandler.example>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/packagetrees.cmake)

set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
file(STRINGS ${debian}/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^repositoryhandler \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/debian/changelog does not begin with version ${PROJECT_VERSION}: ${newest}")
endif()

set(common_text "\
A repository is a directory of resources that is spread over several disks
of one machine. The library answers where a resource lives, picks the disk
for a new one, watches how full each disk is, and moves the least recently
used resources off disks that fill up. Several processes work on one
repository at once.")

# kt_package(COMPONENT PACKAGE SECTION SUMMARY TEXT): the package of a component; TEXT ends its description.
macro(kt_package component package section summary text)
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${common_text}\n\n${text}")
  install(FILES ${debian}/copyright ${debian}/changelog DESTINATION share/doc/${package} COMPONENT ${component})
endmacro()

kt_package(library libktrepositoryhandler1 libs
           "repositories of resources spread over several disks - library"
           "This package has the shared library, for C++ programs and for the Java class.")
# What CPack would write here calls ldconfig in scripts of its own and asks for the very same version.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${debian}/shlibs ${debian}/triggers)

kt_package(development libktrepositoryhandler-dev libdevel
           "repositories of resources spread over several disks - development"
           "This package has the headers, the CMake package and the pkg-config file.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libktrepositoryhandler1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS libktrepositoryhandler-doc)

kt_package(java libktrepositoryhandler-java java
           "repositories of resources spread over several disks - Java"
           "This package has the class corvanta.util.RepositoryHandler, and the
library where Java looks for it.")
set(CPACK_DEBIAN_JAVA_PACKAGE_DEPENDS "libktrepositoryhandler1 (= ${PROJECT_VERSION})")
# A library depends on no runtime: the program that uses it does.
set(CPACK_DEBIAN_JAVA_PACKAGE_RECOMMENDS "default-jre-headless (>= 2:1.11) | java11-runtime-headless")
set(CPACK_DEBIAN_JAVA_PACKAGE_SUGGESTS libktrepositoryhandler-doc)

kt_package(documentation libktrepositoryhandler-doc doc
           "repositories of resources spread over several disks - documentation"
           "This package has the administrator's guide, the architecture and the
documentation of the Java class.")
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)

kt_package(program mountwarden admin
           "repositories of resources spread over several disks - balancing"
           "This package has the program mountwarden, one balancing pass, and the
systemd units that run it every hour.")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers | systemd-sysusers, \
systemd | systemd-standalone-tmpfiles | systemd-tmpfiles")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SUGGESTS libktrepositoryhandler-doc)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_CONTROL_EXTRA ${debian}/postinst ${debian}/prerm ${debian}/postrm)

# Java looks for the natives here, by the name without a version.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/jni)
file(CREATE_LINK ../libKTRepositoryHandler.so.${PROJECT_VERSION_MAJOR}
     ${PROJECT_BINARY_DIR}/jni/libKTRepositoryHandler.so SYMBOLIC)
install(FILES ${PROJECT_BINARY_DIR}/jni/libKTRepositoryHandler.so
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/jni COMPONENT java)

include(CPack)
