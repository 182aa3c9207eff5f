# The library as a client of the shared peer runner (plain libcurl, Node's fetch and
# others against nginx on loopback): small GETs through the transport or the agent, and
# one download.
add_executable(peer_client ${CMAKE_CURRENT_LIST_DIR}/peer_client.cpp)
target_link_libraries(peer_client PRIVATE vkq)
