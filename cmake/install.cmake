# SPDX-License-Identifier: MIT
# What `cmake --install` installs. All paths in the installed files are relative to these files.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/sennet)

install(TARGETS sennet EXPORT sennetTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sennet COMPONENT dev
)

# Not in the header set: it works with and without GoogleTest.
install(FILES include/sennet/testing.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sennet COMPONENT dev)

set(pc_requires "glib-2.0 >= 2.74, gio-2.0, jsoncpp")
set(config_needs_dlog FALSE)
if(SENNET_DLOG_FOUND)
  string(APPEND pc_requires ", dlog")
  set(config_needs_dlog TRUE)
endif()

install(EXPORT sennetTargets NAMESPACE sennet:: DESTINATION ${package_dir} COMPONENT dev)
configure_package_config_file(cmake/sennetConfig.cmake.in ${PROJECT_BINARY_DIR}/sennetConfig.cmake
  INSTALL_DESTINATION ${package_dir}
  NO_SET_AND_CHECK_MACRO
)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/sennetConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(
  FILES
    ${PROJECT_BINARY_DIR}/sennetConfig.cmake
    ${PROJECT_BINARY_DIR}/sennetConfigVersion.cmake
    cmake/SennetInstallService.cmake
  DESTINATION ${package_dir} COMPONENT dev
)
install(DIRECTORY cmake/service DESTINATION ${package_dir} COMPONENT dev)

file(RELATIVE_PATH pc_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_prefix ${pc_prefix})
cmake_path(APPEND pc_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND pc_includedir "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
configure_file(cmake/sennet.pc.in ${PROJECT_BINARY_DIR}/sennet.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sennet.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# Where Debian's Python looks with the prefix /usr; with another prefix, add it to PYTHONPATH.
install(FILES python/sennet.py DESTINATION lib/python3/dist-packages COMPONENT python)
install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md LICENSE
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc
  FILES_MATCHING PATTERN "*.cpp" PATTERN "*.h" PATTERN "service/CMakeLists.txt")
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc
  FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")
# The reference, if scripts/docs has built it.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/build/docs/html
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc OPTIONAL)
