// What a task's exchange cost and how it went, as the transport measured it: the
// timings of its last exchange, the bytes of all of them, and what retries and resuming
// did. Filled for failed exchanges too, as far as they got.
#pragma once

#include <cstdint>
#include <string>

namespace vkq::platform {

struct URLSessionTaskMetrics {
  // The steps below are seconds from the start of the last exchange until the step
  // was done; -1 for a step it did not reach. On a reused connection the connection
  // steps take no time.

  // The host name was resolved.
  double nameLookup = -1;
  // The connection was made.
  double connect = -1;
  // The TLS handshake was done; -1 for plain HTTP.
  double secureConnect = -1;
  // The request began to go out.
  double requestSent = -1;
  // The first byte of the answer came.
  double firstByte = -1;
  // The exchange ended.
  double total = -1;
  // Request bytes sent (head and body), over every exchange of the task.
  std::int64_t bytesSent = 0;
  // Answer bytes received (head and body, as they came over the wire), over every exchange.
  std::int64_t bytesReceived = 0;
  // "1.0", "1.1", "2" or "3"; empty without an answer.
  std::string httpVersion;
  // The last exchange ran on a connection an earlier one had made.
  bool reusedConnection = false;
  // Exchanges after the first.
  int retries = 0;
  // Downloads: the body byte the last exchange started from (0: from the beginning).
  std::int64_t resumedFromByte = 0;
};

}  // namespace vkq::platform
