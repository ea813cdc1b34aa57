# What `cmake --install` puts next to the libraries and headers (their install() rules sit with
# the targets in src/ and engine/merin/): a CMake package for find_package(libtavo CONFIG) and
# pkg-config files. The static test libraries are not installed.
include(CMakePackageConfigHelpers)

set(TAVO_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/libtavo)

install(EXPORT libtavoTargets
  NAMESPACE libtavo::
  FILE libtavoTargets.cmake
  DESTINATION ${TAVO_CMAKE_INSTALL_DIR} COMPONENT dev)

configure_package_config_file(cmake/libtavoConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/libtavoConfig.cmake
  INSTALL_DESTINATION ${TAVO_CMAKE_INSTALL_DIR})
# 1.x hosts keep working with any later 1.y: the shared library's SONAME changes with the major.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/libtavoConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/libtavoConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/libtavoConfigVersion.cmake
  DESTINATION ${TAVO_CMAKE_INSTALL_DIR} COMPONENT dev)

# The .pc files find the prefix from their own location, so that `cmake --install --prefix` and
# DESTDIR installs give working files without reconfiguring.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  message(FATAL_ERROR "the pkg-config files need CMAKE_INSTALL_LIBDIR and "
                      "CMAKE_INSTALL_INCLUDEDIR relative to the install prefix")
endif()
file(RELATIVE_PATH TAVO_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" TAVO_PC_TO_PREFIX "${TAVO_PC_TO_PREFIX}")
configure_file(cmake/libtavo.pc.in ${CMAKE_CURRENT_BINARY_DIR}/libtavo.pc @ONLY)
configure_file(cmake/libmerin.pc.in ${CMAKE_CURRENT_BINARY_DIR}/libmerin.pc @ONLY)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/libtavo.pc
  ${CMAKE_CURRENT_BINARY_DIR}/libmerin.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
