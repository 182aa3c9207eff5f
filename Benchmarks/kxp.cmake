# KXP framing and parsing throughput beside the codec pieces they are made of.
add_executable(kxp_benchmark ${CMAKE_CURRENT_LIST_DIR}/kxp_benchmark.cpp)
target_link_libraries(kxp_benchmark PRIVATE vkq benchmark::benchmark)
