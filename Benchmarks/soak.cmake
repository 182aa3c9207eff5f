# 200,000 small exchanges through the agent with random failures and cancels: resident
# memory and open file descriptors before and after. Serves from the test server fixture
# in a child process, so it needs the test support library.
if(TARGET vkq_test_support)
  add_executable(soak_benchmark ${CMAKE_CURRENT_LIST_DIR}/soak_benchmark.cpp)
  target_link_libraries(soak_benchmark PRIVATE vkq vkq_test_support)
endif()
