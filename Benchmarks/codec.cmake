# The byte codec against the plain alternatives: CRC-32, the XOR mask, compression.
add_executable(codec_benchmark ${CMAKE_CURRENT_LIST_DIR}/codec_benchmark.cpp)
target_link_libraries(codec_benchmark PRIVATE vkq_codec vkq_base ZLIB::ZLIB PkgConfig::LIBDEFLATE benchmark::benchmark)
