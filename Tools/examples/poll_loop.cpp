// An application with its own poll(2) loop: the library's callbacks run on the loop's
// thread, drained when the main queue's descriptor is readable, beside a descriptor of
// the application's own (here a timer that bounds the wait). The README shows the loop.
// Run it against the reference server:
//
//   build/bin/vkq serve &                     # prints its URL
//   build/bin/vkq-poll-loop http://127.0.0.1:PORT
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/MainQueue.h"

using vkq::platform::MainQueue;

namespace {

// Three JSON requests; each answer's callback prints it and counts it off.
void startRequests(const std::string& base, std::size_t& unanswered) {
  for (const char* city : {"Oslo", "Lima", "Pune"}) {
    auto request = VKQVesk::initWithJSONUrl(base + "/json/echo", vkq::platform::JSON{{"city", city}},
                                            VKQRequestMethodGET);
    ++unanswered;
    request->requestCompletion([&unanswered](std::shared_ptr<VKQVeskResult> result) {
      if (result->responseCode()->code() == 0) {
        std::cout << "answer: " << result->data().json().dump() << "\n";
      } else {
        std::cout << "failed: " << result->description() << "\n";
      }
      --unanswered;
    });
  }
}

int failed(const char* what) {
  std::perror(what);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: vkq-poll-loop BASE_URL   (a `vkq serve`)\n";
    return 64;
  }
  const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const itimerspec tenSeconds{{0, 0}, {10, 0}};
  if (timer < 0 || timerfd_settime(timer, 0, &tenSeconds, nullptr) < 0) return failed("timerfd");
  std::size_t unanswered = 0;

  // --8<-- poll
  // Before the first request: from now on the callbacks wait for this loop.
  const int mainQueue = MainQueue::usePollableDescriptor();
  if (mainQueue < 0) return failed("usePollableDescriptor");
  startRequests(argv[1], unanswered);
  while (unanswered > 0) {
    pollfd watched[] = {{mainQueue, POLLIN, 0}, {timer, POLLIN, 0}};
    if (poll(watched, std::size(watched), -1) < 0 && errno != EINTR) return failed("poll");
    if (watched[0].revents & POLLIN) MainQueue::drain();  // runs the waiting callbacks, here
    if (watched[1].revents & POLLIN) {
      std::cerr << "no answer within ten seconds\n";
      return 1;
    }
  }
  // --8<--
  close(timer);
  return 0;
}
