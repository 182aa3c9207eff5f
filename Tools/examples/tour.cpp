// A tour of the library's API: the snippets of the README, compiled with the project.
// Run it against the reference server, with a file big.bin under its root:
//
//   build/bin/vkq serve --root DIR &          # prints its URL
//   build/bin/vkq-tour http://127.0.0.1:PORT
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <iostream>
#include <memory>
#include <string>

#include "Classes/VKQVesk.h"
#include "Classes/VKQVeskAsync.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/MainQueue.h"

using vkq::platform::MainQueue;

namespace {

// Callbacks run on the main queue; this program drains it on its own thread until
// the one request it waits for has answered.
void waitFor(const bool& done) {
  MainQueue::runUntil([&] { return done; }, std::chrono::seconds(60));
}

void waitFor(const std::future<std::shared_ptr<VKQVeskResult>>& answer) {
  MainQueue::runUntil([&] { return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
                      std::chrono::seconds(60));
}

void kxpRequest(const std::string& base) {
  bool done = false;
  // --8<-- kxp
  auto payload = std::make_shared<vkq::platform::Bytes>(vkq::platform::bytesFromString("hello, kxp"));
  auto request = VKQVesk::initWithKXPUrl(base + "/kxp/echo", payload);
  // Settings chain: each promise stores one value and returns the builder.
  request->compressPromise()(true)
      ->uploadOSTypePromise()(true)
      ->headersPromise()(VKQHeaderDictionary{{"Content-Type", "application/octet-stream"}, {"X-Trace", "tour"}});
  request->requestWithSuccess(
      [&](std::shared_ptr<VKQVeskResult> result) {
        // The unframed payload of the answer.
        std::cout << "kxp answer: " << vkq::platform::stringFromBytes(*result->data().data()) << "\n";
        done = true;
      },
      [&](std::shared_ptr<VKQVeskResult> result) {
        std::cout << "kxp failed: " << result->description() << "\n";  // code and message
        done = true;
      });
  // --8<--
  waitFor(done);
}

void jsonRequest(const std::string& base) {
  bool done = false;
  // --8<-- json
  auto request = VKQVesk::initWithJSONUrl(base + "/json/echo", vkq::platform::JSON{{"city", "Oslo"}, {"days", 3}},
                                          VKQRequestMethodPOST);
  request->requestCompletion([&](std::shared_ptr<VKQVeskResult> result) {
    if (result->responseCode()->code() == 0) {
      std::cout << "json answer: " << result->data().json().dump() << "\n";
    } else {
      std::cout << "json failed: " << result->description() << "\n";
    }
    done = true;
  });
  // --8<--
  waitFor(done);
}

void download(const std::string& base) {
  bool done = false;
  const std::string path = (std::filesystem::temp_directory_path() / "vkq-tour-big.bin").string();
  // --8<-- download
  auto request = VKQVesk::initWithDownloadURL(base + "/files/big.bin", path, nullptr);
  request->downloadtWithSuccess(
      [&](std::shared_ptr<VKQVeskResult> result) {
        // The data of a download is the file URL it was written to.
        std::cout << "downloaded to " << result->data().url().filePath() << "\n";
        done = true;
      },
      [](const vkq::platform::Progress& progress) {
        // On the transport's thread, as bytes arrive.
        std::fprintf(stderr, "\r%3.0f%%", progress.fractionCompleted() * 100);
      },
      [&](std::shared_ptr<VKQVeskResult> result) {
        // Interrupted downloads of the same path resume from where they stopped.
        std::cout << "download failed: " << result->description() << "\n";
        done = true;
      });
  // --8<--
  waitFor(done);
  std::fprintf(stderr, "\n");
}

void futureRequest(const std::string& base) {
  // --8<-- future
  std::future<std::shared_ptr<VKQVeskResult>> answer = VKQRequestFuture(
      VKQVesk::initWithJSONUrl(base + "/json/echo", vkq::platform::JSON{{"city", "Lima"}}, VKQRequestMethodGET));
  // With the main queue on its own thread (the default) answer.get() simply waits;
  // this program drains the queue itself, so it runs the queue until the value is there.
  waitFor(answer);
  std::cout << "future: " << answer.get()->data().json().dump() << "\n";
  // --8<--
}

// --8<-- coroutine
// Any coroutine type will do; VKQDetachedCoroutine runs until its end, owned by no one.
VKQDetachedCoroutine coroutineRequest(std::string base, bool& done) {
  auto request = VKQVesk::initWithJSONUrl(base + "/json/echo", vkq::platform::JSON{{"days", 5}});
  // Suspends here and resumes on the main queue with the result. A cancelRequest()
  // resumes it too: code -2, and the request's error says "cancelled".
  std::shared_ptr<VKQVeskResult> result = co_await VKQRequestAwaitable(request);
  std::cout << "coroutine: " << result->data().json().dump() << "\n";
  done = true;
}
// --8<--

void retriedRequest(const std::string& base) {
  bool done = false;
  // --8<-- retries
  auto request = VKQVesk::initWithJSONUrl(base + "/json/echo", nullptr, VKQRequestMethodGET);
  request->maximumRetryCountPromise()(3)->requestDeadlineIntervalPromise()(30.0);
  request->requestCompletion([&](std::shared_ptr<VKQVeskResult> result) {
    const auto& m = result->metrics();  // -1: a step the exchange did not reach
    std::printf("%d retries, first byte after %.3f s, %s\n", m.retries, m.firstByte,
                m.reusedConnection ? "reused connection" : "new connection");
    done = true;
  });
  // --8<--
  waitFor(done);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: vkq-tour BASE_URL   (a `vkq serve --root DIR` with DIR/big.bin)\n";
    return 64;
  }
  MainQueue::useManualDraining();
  const std::string base = argv[1];
  kxpRequest(base);
  jsonRequest(base);
  futureRequest(base);
  bool coroutineDone = false;
  coroutineRequest(base, coroutineDone);
  waitFor(coroutineDone);
  download(base);
  retriedRequest(base);
  return 0;
}
