// The agent's table of running requests, keyed by their task's identifier.
//
// Every operation takes the table's own non-recursive mutex for that one operation
// only, so no caller ever runs a callback, a serializer or a transport call under it.
// The table holds its requests strongly. Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

class VKQVeskRequest;

class VKQNetworkAgentRecord {
 public:
  // The key: URLSessionTask::taskIdentifier() of the request's task.
  using TaskIdentifier = std::uint64_t;

  // Stores `request` under `key`, replacing an earlier entry under that key.
  void insert(TaskIdentifier key, std::shared_ptr<VKQVeskRequest> request) {
    std::lock_guard lock(mutex_);
    requests_[key] = std::move(request);
  }
  // Forgets the entry under `key`; no effect when there is none.
  void remove(TaskIdentifier key) {
    std::lock_guard lock(mutex_);
    requests_.erase(key);
  }
  // The request under `key`, or null.
  std::shared_ptr<VKQVeskRequest> find(TaskIdentifier key) const {
    std::lock_guard lock(mutex_);
    const auto it = requests_.find(key);
    return it != requests_.end() ? it->second : nullptr;
  }
  // The number of entries.
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return requests_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_map<TaskIdentifier, std::shared_ptr<VKQVeskRequest>> requests_;  // guarded by mutex_
};
