# The `docs` target: the API reference, made by Doxygen from the public headers (the
# ones that are installed) into docs/html/ of the build folder. It fails on every
# warning, an undocumented public member among them. Not part of the default build.
find_package(Doxygen QUIET)
find_package(Python3 QUIET COMPONENTS Interpreter)
if(NOT DOXYGEN_FOUND OR NOT Python3_Interpreter_FOUND)
  return()
endif()
# The headers document with plain // comments; the filter shows them to Doxygen as its own.
list(JOIN VKQ_PUBLIC_HEADERS " " VKQ_DOXYGEN_INPUT)
set(VKQ_DOXYGEN_FILTER "${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/scripts/doxygen-filter.py")
configure_file(${PROJECT_SOURCE_DIR}/cmake/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
add_custom_target(docs
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${PROJECT_BINARY_DIR}/docs
  COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  COMMENT "API reference in ${PROJECT_BINARY_DIR}/docs/html/index.html"
  VERBATIM)
