#include "Tools/vkq/SignalWatcher.h"

#include <pthread.h>
#include <signal.h>

namespace vkq::tool {
namespace {

sigset_t watchedSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

SignalWatcher::SignalWatcher(std::function<void(int)> onSignal) : onSignal_(std::move(onSignal)) {
  const sigset_t set = watchedSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  thread_ = std::thread([this] { watch(); });
}

SignalWatcher::~SignalWatcher() {
  stopping_ = true;
  // The signal is blocked everywhere, so it stays pending for the watcher's sigwait.
  pthread_kill(thread_.native_handle(), SIGTERM);
  thread_.join();
}

void SignalWatcher::watch() {
  const sigset_t set = watchedSignals();
  for (;;) {
    int signal = 0;
    if (sigwait(&set, &signal) != 0) continue;
    if (stopping_) return;
    onSignal_(signal);
  }
}

}  // namespace vkq::tool
