# The network agent beside the transport alone: small KXP exchanges per second and
# client CPU per exchange, 32 in flight; then the memory of 1,000 requests in flight.
# Serves from the test server fixture in a child process, so it needs the test support
# library.
if(TARGET vkq_test_support)
  add_executable(agent_benchmark ${CMAKE_CURRENT_LIST_DIR}/agent_benchmark.cpp)
  target_link_libraries(agent_benchmark PRIVATE vkq vkq_test_support
                        benchmark::benchmark)
endif()
