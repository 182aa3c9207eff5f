#include "Platform/Transport/CurlHandles.h"

#include <mutex>
#include <new>

namespace vkq::platform {

void ensureCurlInitialized() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

EasyHandle::EasyHandle() {
  ensureCurlInitialized();
  handle_ = curl_easy_init();
  if (handle_ == nullptr) throw std::bad_alloc();
  curl_easy_setopt(handle_, CURLOPT_ERRORBUFFER, errorBuffer_);
  curl_easy_setopt(handle_, CURLOPT_PRIVATE, this);
  curl_easy_setopt(handle_, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(handle_, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(handle_, CURLOPT_XFERINFODATA, this);
}

EasyHandle::~EasyHandle() {
  curl_easy_cleanup(handle_);
  curl_slist_free_all(headers_);
}

void EasyHandle::reuse() {
  pendingLines_.clear();
  errorBuffer_[0] = '\0';
}

void EasyHandle::setURL(const std::string& url) {
  if (url == url_) return;
  if (curl_easy_setopt(handle_, CURLOPT_URL, url.c_str()) == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  url_ = url;
}

void EasyHandle::setReceiveBufferSize(long bytes) {
  if (bytes == receiveBufferSize_) return;
  curl_easy_setopt(handle_, CURLOPT_BUFFERSIZE, bytes);
  receiveBufferSize_ = bytes;
  if (bytes > CURL_MAX_WRITE_SIZE) largeReceiveBuffer_ = true;
}

void EasyHandle::setMethod(const std::string& method, const Bytes* body) {
  const bool plainGet = body == nullptr && method == "GET";
  if (plainGet && plainGet_) return;
  plainGet_ = plainGet;
  // First back to a GET without a body (HTTPGET after POSTFIELDS, which switches to
  // POST), then what the request asks for.
  curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, nullptr);
  curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{-1});
  curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, nullptr);
  curl_easy_setopt(handle_, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(handle_, CURLOPT_HTTPGET, 1L);
  if (body) {
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, reinterpret_cast<const char*>(body->data()));
    if (method != "POST") curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, method.c_str());
    // Upload progress also counts as activity for the idle time-out.
    curl_easy_setopt(handle_, CURLOPT_NOPROGRESS, 0L);
  } else if (method == "HEAD") {
    curl_easy_setopt(handle_, CURLOPT_NOBODY, 1L);
  } else if (method == "POST") {
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE, 0L);
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, "");
  } else if (method != "GET") {
    curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, method.c_str());
  }
}

void EasyHandle::addHeader(std::string_view name, std::string_view value) {
  pendingLines_ += name;
  // "Name;" is libcurl's spelling of a field sent with an empty value; "Name:" would
  // remove the field instead.
  pendingLines_ += value.empty() ? ";" : ": ";
  pendingLines_ += value;
  pendingLines_ += '\0';
}

void EasyHandle::suppressHeader(std::string_view name) {
  pendingLines_ += name;
  pendingLines_ += ':';
  pendingLines_ += '\0';
}

void EasyHandle::applyHeaders() {
  if (pendingLines_ == installedLines_) return;
  curl_slist* list = nullptr;
  for (std::size_t at = 0; at < pendingLines_.size();) {
    const char* line = pendingLines_.c_str() + at;  // NUL-terminated by its separator
    curl_slist* extended = curl_slist_append(list, line);  // the same head, or null
    if (extended == nullptr) {
      curl_slist_free_all(list);
      throw std::bad_alloc();
    }
    list = extended;
    at += std::char_traits<char>::length(line) + 1;
  }
  curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, list);
  curl_slist_free_all(headers_);
  headers_ = list;
  installedLines_.swap(pendingLines_);
}

MultiHandle makeMultiHandle() {
  ensureCurlInitialized();
  MultiHandle multi(curl_multi_init());
  if (!multi) throw std::bad_alloc();
  return multi;
}

ShareHandle makeShareHandle() {
  ensureCurlInitialized();
  ShareHandle share(curl_share_init());
  if (!share) throw std::bad_alloc();
  return share;
}

}  // namespace vkq::platform
