# The transport against plain libcurl: small keep-alive GETs (requests/s, client CPU per
# request) and a large download to disk beside the curl tool. Serves from the test
# server fixture in a child process, so it needs the test support library.
if(TARGET vkq_test_support)
  add_executable(transport_benchmark ${CMAKE_CURRENT_LIST_DIR}/transport_benchmark.cpp)
  target_link_libraries(transport_benchmark PRIVATE vkq_platform vkq_base vkq_test_support CURL::libcurl benchmark::benchmark)
endif()
