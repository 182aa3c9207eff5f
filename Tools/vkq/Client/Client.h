// Client: runs the request subcommands of `vkq` (kxp, json, download) through the
// library's public API, VKQVesk and the shared VKQNetworkAgent, and turns each
// outcome into the tool's output and exit status (ExitStatus.h).
//
// Output: the decoded payload on standard output (or the kxp --output file); the
// result's description and the request's error on standard error when the code is
// not 0; a download's progress bar on standard error when it is a terminal.
//
// REQUIRES: the main queue is drained manually on the calling thread (see Exchange.h);
// `interrupted` is set by the program's signal watcher.
#pragma once

#include <atomic>

#include "Tools/vkq/CommandLine/CommandLine.h"

namespace vkq::tool {

class Client {
 public:
  explicit Client(const std::atomic<bool>& interrupted) : interrupted_(interrupted) {}

  int run(const KXPCommand& command) const;
  int run(const JSONCommand& command) const;
  int run(const DownloadCommand& command) const;

 private:
  const std::atomic<bool>& interrupted_;
};

}  // namespace vkq::tool
