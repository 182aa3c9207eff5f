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

# vkq_library(NAME TYPE): the library applications link, made of every component's
# objects; TYPE is STATIC, SHARED or "" (BUILD_SHARED_LIBS decides). Its file is
# libvkqvesk, the shared object's SONAME libvkqvesk.so.<major version>.
function(vkq_library name type)
  add_library(${name} ${type}
    $<TARGET_OBJECTS:vkq_base> $<TARGET_OBJECTS:vkq_platform> $<TARGET_OBJECTS:vkq_codec> $<TARGET_OBJECTS:vkq_classes>)
  set_target_properties(${name} PROPERTIES
    OUTPUT_NAME vkqvesk VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  target_compile_features(${name} PUBLIC cxx_std_20)
  # In this tree the components pass on their usage requirements (the project root as
  # include directory among them). Installed, the headers need nlohmann-json, and an
  # archive the libraries its objects call.
  target_link_libraries(${name}
    PUBLIC "$<BUILD_INTERFACE:vkq_base;vkq_platform;vkq_codec;vkq_classes>" nlohmann_json::nlohmann_json Threads::Threads
    PRIVATE CURL::libcurl OpenSSL::Crypto PkgConfig::LIBPLIST PkgConfig::LIBDEFLATE)
  # The public headers, installed under include/vkqvesk/ with their paths from the root.
  target_sources(${name} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${VKQ_PUBLIC_HEADERS})
endfunction()
