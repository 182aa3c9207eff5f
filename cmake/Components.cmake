# vkq_component(NAME SOURCES ... LIBS ...)
# A component is an object library; its usage requirements travel with it and the
# final `vkq` library collects the objects of all components.
function(vkq_component name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} OBJECT ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_LIBS})
endfunction()

# vkq_test(NAME SOURCES ... LIBS ...): a GoogleTest executable registered with CTest.
function(vkq_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
