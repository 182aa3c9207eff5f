// vkq: the command-line client of the library (kxp, json, download) and its reference
// server (serve). See CommandLine.h for the arguments and ExitStatus.h for the statuses.
#include <atomic>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "Platform/Base/Log.h"
#include "Platform/Base/MainQueue.h"
#include "Tools/vkq/Client/Client.h"
#include "Tools/vkq/CommandLine/CommandLine.h"
#include "Tools/vkq/ExitStatus.h"
#include "Tools/vkq/Server/ReferenceServer.h"
#include "Tools/vkq/SignalWatcher.h"

namespace {

using namespace vkq::tool;

constexpr int kExitUnavailable = 69;  // the server cannot listen

int serve(const ServeCommand& command) {
  if (command.root && !std::filesystem::is_directory(*command.root)) {
    std::cerr << "vkq: --root " << *command.root << " is not a folder\n";
    return kExitUsage;
  }
  ReferenceServer server({command.frame, command.root, command.rateLimit, stderr, command.dropEvery, command.failFirst});
  // Before the server starts its threads, so that they inherit the blocked signals.
  SignalWatcher watcher([&server](int) { server.stop(); });
  const auto port = server.bind(command.port);
  if (!port) {
    std::cerr << "vkq: cannot listen on 127.0.0.1:" << command.port << "\n";
    return kExitUnavailable;
  }
  // Scripts read this line to learn the port.
  std::printf("listening on http://127.0.0.1:%d\n", *port);
  std::fflush(stdout);
  server.run();
  return kExitSuccess;
}

template <typename RequestCommand>
int request(const RequestCommand& command) {
  // The one result is delivered on this thread, which waits for it.
  vkq::platform::MainQueue::useManualDraining();
  std::atomic<bool> interrupted{false};
  SignalWatcher watcher([&interrupted](int) {
    interrupted = true;
    vkq::platform::MainQueue::async([] {});  // wakes the waiting thread
  });
  return Client(interrupted).run(command);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  Invocation invocation;
  try {
    invocation = parseCommandLine(arguments);
  } catch (const UsageError& error) {
    std::cerr << "vkq: " << error.what();
    return kExitUsage;
  }
  if (invocation.verbose) vkq::platform::setLogSink(vkq::platform::standardErrorLogSink());

  try {
    if (const auto* help = std::get_if<HelpCommand>(&invocation.command)) {
      std::cout << help->text;
      return kExitSuccess;
    }
    if (const auto* command = std::get_if<ServeCommand>(&invocation.command)) return serve(*command);
    if (const auto* command = std::get_if<KXPCommand>(&invocation.command)) return request(*command);
    if (const auto* command = std::get_if<JSONCommand>(&invocation.command)) return request(*command);
    return request(std::get<DownloadCommand>(invocation.command));
  } catch (const std::exception& error) {
    std::cerr << "vkq: " << error.what() << "\n";
    return kExitSoftware;
  }
}
