# Debian packages: `cmake --preset package && cmake --build --preset package`, then `cpack` in
# build/package.
find_program(SENNET_GZIP gzip)
if(NOT SENNET_GZIP)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME sennet)
set(CPACK_PACKAGE_CONTACT "The libsennet authors <sennet@velmora.example>")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# sennet_package(<component> <name> <section> <short description>)
macro(sennet_package component name section summary)
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n ${description}")
  # In the packages only: the papers that each one must bring.
  install(FILES cmake/debian/copyright ${PROJECT_BINARY_DIR}/debian/changelog.gz
    DESTINATION share/doc/${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

set(description "A framework for applications on embedded Linux: threads with main loops and event
 queues, alarms, and named endpoints on D-Bus.")
set(version "(= ${PROJECT_VERSION})")

sennet_package(runtime libsennet0 libs "application framework on GLib and D-Bus")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)

sennet_package(dev libsennet-dev libdevel "application framework on GLib and D-Bus - development")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libsennet0 ${version}, libglib2.0-dev, libjsoncpp-dev")

sennet_package(doc libsennet-doc doc "application framework on GLib and D-Bus - documentation")
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)

if(TARGET sennetctl)
  sennet_package(tools sennet-tools utils "application framework on GLib and D-Bus - tools")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libsennet0 ${version}")
endif()

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(cmake/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
execute_process(
  COMMAND ${SENNET_GZIP} -9nc ${PROJECT_BINARY_DIR}/debian/changelog
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/debian/changelog.gz
  COMMAND_ERROR_IS_FATAL ANY
)
include(CPack)
