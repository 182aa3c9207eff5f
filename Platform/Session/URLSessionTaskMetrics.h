// What a task's exchange cost and how it went, as the transport measured it: the
// timings of its last exchange, the bytes of all of them, and what retries and resuming
// did. Filled for failed exchanges too, as far as they got.
#pragma once

#include <cstdint>
#include <string>

namespace vkq::platform {

struct URLSessionTaskMetrics {
  // Seconds from the start of the last exchange until each step was done; -1 for a
  // step it did not reach. On a reused connection the connection steps take no time.
  double nameLookup = -1;
  double connect = -1;
  double secureConnect = -1;  // TLS handshake done; -1 for plain HTTP
  double requestSent = -1;
  double firstByte = -1;      // first byte of the answer
  double total = -1;
  // Over every exchange of the task: request bytes sent (head and body) and answer
  // bytes received (head and body, as they came over the wire).
  std::int64_t bytesSent = 0;
  std::int64_t bytesReceived = 0;
  std::string httpVersion;    // "1.0", "1.1", "2" or "3"; empty without an answer
  bool reusedConnection = false;
  int retries = 0;            // exchanges after the first
  // Downloads: the body byte the last exchange started from (0: from the beginning).
  std::int64_t resumedFromByte = 0;
};

}  // namespace vkq::platform
