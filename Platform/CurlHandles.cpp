#include "Platform/CurlHandles.h"

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
}

EasyHandle::~EasyHandle() {
  curl_easy_cleanup(handle_);
  curl_slist_free_all(headers_);
}

void EasyHandle::reuse() {
  curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, nullptr);
  curl_slist_free_all(headers_);
  headers_ = nullptr;
  errorBuffer_[0] = '\0';
}

void EasyHandle::setReceiveBufferSize(long bytes) {
  curl_easy_setopt(handle_, CURLOPT_BUFFERSIZE, bytes);
  if (bytes > CURL_MAX_WRITE_SIZE) largeReceiveBuffer_ = true;
}

void EasyHandle::addHeader(std::string_view name, std::string_view value) {
  std::string line(name);
  // "Name;" is libcurl's spelling of a field sent with an empty value; "Name:" would
  // remove the field instead.
  line += value.empty() ? ";" : ": ";
  line += value;
  append(line);
}

void EasyHandle::suppressHeader(std::string_view name) { append(std::string(name) + ":"); }

void EasyHandle::append(const std::string& line) {
  curl_slist* extended = curl_slist_append(headers_, line.c_str());
  if (extended == nullptr) throw std::bad_alloc();
  headers_ = extended;
}

void EasyHandle::applyHeaders() { curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, headers_); }

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
