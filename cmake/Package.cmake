# `cpack -G DEB` in the build directory makes three Debian packages with Debian's file names
# (libtavo1_1.0.0_amd64.deb, ...): libtavo1 (the shared libraries), libtavo-dev (headers, the
# CMake package, pkg-config files) and tavo (the tool and its manual page). The libraries they
# need come from dpkg-shlibdeps; libtavo1 carries a shlibs file for packages built on it.
# Configure with -DCMAKE_INSTALL_PREFIX=/usr for Debian's multiarch library directory.
set(CPACK_PACKAGE_NAME libtavo)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "libtavo developers <libtavo@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Runtime for downloadable mini-games")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TAVO_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The build keeps its debugging information; the packages do not.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool links the libraries of this build, which no installed package provides yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_BINARY_DIR}/src ${CMAKE_BINARY_DIR}/engine/merin)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtavo1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "Runtime for downloadable mini-games\n libtavo checks, downloads, installs, runs and removes mini-games for a host\n application; libmerin is its reference headless engine.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtavo-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libtavo1 (= ${PROJECT_VERSION}), nlohmann-json3-dev (>= 3.10)")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "Development files of libtavo\n C++20 headers, the CMake package libtavo and the pkg-config files libtavo\n and libmerin.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tavo)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libtavo1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_DESCRIPTION
    "Command-line host and plug-in service of libtavo\n One subcommand per runtime operation, a demo of the whole game cycle, and\n tavo serve, a plug-in service.")

include(CPack)
