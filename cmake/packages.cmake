# SPDX-License-Identifier: MIT
# Debian packages. scripts/package builds them, in build/package.
find_program(SENNET_GZIP gzip)
if(NOT SENNET_GZIP)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME sennet)
set(CPACK_PACKAGE_CONTACT "The libsennet authors <sennet@velmora.example>")
set(CPACK_STRIP_FILES ON)
# The same permissions whatever the umask is.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/compress_man_pages.cmake)

# The package of an install component, with the copyright and the change log that Debian requires.
macro(sennet_package component name section contents)
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "This package holds ${contents}.")
  install(FILES cmake/debian/copyright ${PROJECT_BINARY_DIR}/debian/changelog.gz
    DESTINATION share/doc/${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

set(same_library "libsennet0 (= ${PROJECT_VERSION})")

sennet_package(runtime libsennet0 libs "the shared library")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)

sennet_package(dev libsennet-dev libdevel "the headers and the files for CMake and pkg-config")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${same_library}, libglib2.0-dev, libjsoncpp-dev")

sennet_package(doc libsennet-doc doc "the documentation and the example programs")
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)

sennet_package(python python3-sennet python "the Python module sennet")
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3, python3-gi, gir1.2-glib-2.0")

if(TARGET sennetctl)
  sennet_package(tools sennet-tools utils "sennetctl and sennet-private-bus")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${same_library}")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS dbus-daemon) # for sennet-private-bus
endif()

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(cmake/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
execute_process(
  COMMAND ${SENNET_GZIP} -9nc ${PROJECT_BINARY_DIR}/debian/changelog
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/debian/changelog.gz
  COMMAND_ERROR_IS_FATAL ANY
)
include(CPack)
