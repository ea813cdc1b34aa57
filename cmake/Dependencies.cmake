# Every dependency comes from a Debian package (scripts/setup.sh installs them); nothing is fetched.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(SQLite3 REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
pkg_check_modules(LIBZIP REQUIRED IMPORTED_TARGET libzip)
pkg_check_modules(LIBDEFLATE REQUIRED IMPORTED_TARGET libdeflate)
pkg_check_modules(LIBLZMA REQUIRED IMPORTED_TARGET liblzma)

# Standalone Asio is header-only and ships no CMake package.
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(tavo_asio INTERFACE)
target_include_directories(tavo_asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
target_compile_definitions(tavo_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
target_link_libraries(tavo_asio INTERFACE Threads::Threads)

if(TAVO_BUILD_TESTS OR TAVO_BUILD_TOOLS)
  # Debian's cpp-httplib is a compiled library: link it and compile with its definitions (they
  # change the layout of its classes). Loopback servers of the tests and of `tavo demo` use it.
  pkg_check_modules(CPPHTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
  add_library(tavo_httplib INTERFACE)
  target_link_libraries(tavo_httplib INTERFACE PkgConfig::CPPHTTPLIB Threads::Threads)
endif()
if(TAVO_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
if(TAVO_BUILD_BENCH)
  find_package(benchmark REQUIRED)
endif()
if(TAVO_BUILD_TOOLS)
  find_package(CLI11 CONFIG REQUIRED)
endif()
