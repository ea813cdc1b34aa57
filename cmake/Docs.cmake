# `cmake --build build --target docs`: the API reference and the host guide in build/docs/html,
# made by Doxygen when it is installed. With TAVO_WERROR a warning (an undocumented public
# member, a broken reference) fails the target.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
  return()
endif()
set(TAVO_DOCS_DIR ${CMAKE_BINARY_DIR}/docs)
if(TAVO_WERROR)
  set(TAVO_DOCS_WARN_AS_ERROR FAIL_ON_WARNINGS)
else()
  set(TAVO_DOCS_WARN_AS_ERROR NO)
endif()
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${TAVO_DOCS_DIR}/Doxyfile @ONLY)
file(GLOB TAVO_DOCS_SOURCES ${PROJECT_SOURCE_DIR}/include/tavo/*.h
     ${PROJECT_SOURCE_DIR}/engine/merin/include/merin/*.h ${PROJECT_SOURCE_DIR}/docs/*.md)
add_custom_command(OUTPUT ${TAVO_DOCS_DIR}/html/index.html
  COMMAND ${CMAKE_COMMAND} -E remove_directory ${TAVO_DOCS_DIR}/html
  COMMAND Doxygen::doxygen ${TAVO_DOCS_DIR}/Doxyfile
  DEPENDS ${TAVO_DOCS_SOURCES} ${TAVO_DOCS_DIR}/Doxyfile
  COMMENT "API reference and host guide in ${TAVO_DOCS_DIR}/html"
  VERBATIM)
add_custom_target(docs DEPENDS ${TAVO_DOCS_DIR}/html/index.html)
