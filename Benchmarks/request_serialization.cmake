# The request/response layer of the transport: URL parsing and resolution, query and
# form encoding, JSON answer decoding.
add_executable(request_serialization_benchmark ${CMAKE_CURRENT_LIST_DIR}/request_serialization_benchmark.cpp)
target_link_libraries(request_serialization_benchmark PRIVATE vkq_platform vkq_base benchmark::benchmark)
