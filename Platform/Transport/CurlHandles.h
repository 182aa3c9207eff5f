// RAII owners of libcurl handles, internal to the transport.
//
// An EasyHandle owns the easy handle together with its request header list and its
// error buffer, so the three live and die together; reuse() readies it for another
// exchange. Options equal to the previous exchange's are not set again: a header list
// is built once per handle while the fields repeat, and a GET after a GET sets no
// method. The data pointer of every callback, and CURLINFO_PRIVATE, is the EasyHandle:
// its owner() says whom it works for, one field to change per exchange.
// Not thread-safe: a handle is used by one thread at a time.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <curl/curl.h>

#include "Platform/Base/Bytes.h"

namespace vkq::platform {

// Initialises libcurl once per process (thread-safe); every handle constructor calls it.
void ensureCurlInitialized();

class EasyHandle {
 public:
  EasyHandle();
  ~EasyHandle();
  EasyHandle(const EasyHandle&) = delete;
  EasyHandle& operator=(const EasyHandle&) = delete;

  CURL* get() const { return handle_; }

  // Readies the handle for another exchange: starts a new header list (empty until
  // addHeader()) and clears the error text. Every other option stays as the last exchange left it (libcurl keeps its
  // receive buffer and connection cache links too), so the next user sets each
  // option it varies.
  void reuse();
  // Sets the URL of the next exchange (CURLOPT_URL); libcurl keeps its own copy, so a
  // URL equal to the last one is not set again.
  void setURL(const std::string& url);
  // Sets libcurl's receive buffer size (CURLOPT_BUFFERSIZE) for the next exchange.
  void setReceiveBufferSize(long bytes);
  // Sets the method and the body (null: none) of the next exchange. The body is not
  // copied: it must outlive the exchange.
  void setMethod(const std::string& method, const Bytes* body);
  // The user of the handle for the exchange, for its callbacks; null when idle.
  void setOwner(void* owner) { owner_ = owner; }
  void* owner() const { return owner_; }
  // True once the receive buffer was set larger than libcurl's default.
  bool hasLargeReceiveBuffer() const { return largeReceiveBuffer_; }
  // Appends "Name: value" to the header list sent with the request.
  void addHeader(std::string_view name, std::string_view value);
  // Keeps libcurl from sending a field it would add by itself (e.g. "Expect").
  void suppressHeader(std::string_view name);
  // Installs the header list (call after the last addHeader()).
  void applyHeaders();
  // libcurl's detailed text of the last failure; empty when it left none.
  std::string errorText() const { return errorBuffer_; }

 private:
  CURL* handle_;
  std::string url_;                // installed with CURLOPT_URL
  curl_slist* headers_ = nullptr;  // installed with CURLOPT_HTTPHEADER
  // The lines of headers_ and those of the list being built, each ended by a NUL
  // (which no header line may contain).
  std::string installedLines_;
  std::string pendingLines_;
  char errorBuffer_[CURL_ERROR_SIZE] = {};
  void* owner_ = nullptr;
  long receiveBufferSize_ = 0;  // 0: libcurl's default, never set
  bool plainGet_ = false;       // the method set is a GET without a body
  bool largeReceiveBuffer_ = false;
};

struct MultiHandleDeleter {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
using MultiHandle = std::unique_ptr<CURLM, MultiHandleDeleter>;
MultiHandle makeMultiHandle();

struct ShareHandleDeleter {
  void operator()(CURLSH* share) const { curl_share_cleanup(share); }
};
using ShareHandle = std::unique_ptr<CURLSH, ShareHandleDeleter>;
ShareHandle makeShareHandle();

}  // namespace vkq::platform
