# The JDK that the Java binding is built with, and how Java is compiled here. Stops when there is none.

find_package(Java 11 QUIET COMPONENTS Development)
# The headers of the same JDK. The natives link nothing: the virtual machine hands them all that they call.
if(Java_Development_FOUND AND NOT JAVA_HOME AND NOT DEFINED ENV{JAVA_HOME})
  file(REAL_PATH ${Java_JAVAC_EXECUTABLE} compiler)
  cmake_path(GET compiler PARENT_PATH JAVA_HOME)
  cmake_path(GET JAVA_HOME PARENT_PATH JAVA_HOME)
endif()
find_package(JNI QUIET COMPONENTS JVM)
if(NOT JAVA_INCLUDE_PATH OR NOT JAVA_INCLUDE_PATH2 OR NOT Java_Development_FOUND)
  message(FATAL_ERROR "The Java binding needs a JDK of version 11 or later, and none was found. Install one (on Debian "
                      "openjdk-17-jdk-headless), name its directory in JAVA_HOME, or build without it: -DKT_JNI=OFF.")
endif()
include(UseJava)

set(java_flags --release 11 -encoding UTF-8)
if(CMAKE_COMPILE_WARNING_AS_ERROR)
  list(APPEND java_flags -Werror)
endif()
set(CMAKE_JAVA_COMPILE_FLAGS ${java_flags} -Xlint:all)
