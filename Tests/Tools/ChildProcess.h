// ChildProcess: a program run by a test, with its standard output and error captured
// in files (so that no pipe can fill up and stall it) and every wait bounded in time.
// The destructor kills (SIGKILL) and reaps a child that is still running.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "Tests/Platform/Transport/TransportTesting.h"

namespace vkq::testing {

class ChildProcess {
 public:
  enum class Stream { Output, Error };

  // Runs `command` (the program's path, then its arguments) with standard input from
  // /dev/null. Variables for its environment go through env(1): {"/usr/bin/env", "A=b", ...}.
  explicit ChildProcess(std::vector<std::string> command) {
    std::vector<char*> argv;
    for (std::string& argument : command) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, path(Stream::Output).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&files, 2, path(Stream::Error).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    // The test runner may block signals; the child starts with none blocked.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    const int failed = posix_spawn(&pid_, argv[0], &files, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    if (failed != 0) throw std::runtime_error("cannot run " + command[0]);
  }
  ~ChildProcess() { if (running()) wait(std::chrono::milliseconds(0)); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Waits until the stream holds a match of `pattern` and gives its first group (or the
  // whole match); absent on time-out or when the child exits first.
  std::optional<std::string> waitFor(Stream stream, const std::string& pattern, std::chrono::milliseconds timeout) {
    const std::regex regex(pattern);
    std::string text;
    std::smatch match;
    waitUntil(
        [&] {
          const bool alive = running();  // before reading, so that nothing written before an exit is missed
          return std::regex_search(text = contents(stream), match, regex) || !alive;
        },
        timeout);
    if (match.empty()) return std::nullopt;
    return match[match.size() > 1 ? 1 : 0];
  }
  void signal(int signal) const { kill(pid_, signal); }
  // The exit status (128 + N for a child killed by signal N); absent on time-out, in
  // which case the child is killed.
  std::optional<int> wait(std::chrono::milliseconds timeout) {
    if (waitUntil([&] { return !running(); }, timeout)) return status_;
    kill(pid_, SIGKILL);
    reap(0);
    return std::nullopt;
  }
  std::string contents(Stream stream) const { return readFile(path(stream)); }

 private:
  std::string path(Stream stream) const { return (folder_ / (stream == Stream::Output ? "out" : "err")).string(); }
  bool running() { return !status_ && !reap(WNOHANG); }
  // Collects the exit status; false when the child is still running.
  bool reap(int options) {
    int raw = 0;
    if (waitpid(pid_, &raw, options) != pid_) return false;
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return true;
  }

  const ScratchFolder folder_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

}  // namespace vkq::testing
