// ChildProcess: a program run by a test, with its standard output and error captured
// in files (so that no pipe can fill up and stall it) and every wait bounded in time.
// The destructor kills (SIGKILL) and reaps a child that is still running.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vkq::testing {

class ChildProcess {
 public:
  struct Options {
    // Variables set in the child's environment on top of the test's own.
    std::map<std::string, std::string> environment;
    // Fed to the child's standard input (empty: /dev/null).
    std::string standardInput;
  };

  ChildProcess(const std::string& program, const std::vector<std::string>& arguments, Options options = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // Waits until the child's standard output holds a line containing `text` and
  // returns that line; absent on time-out or when the child exits first.
  std::optional<std::string> waitForOutputLine(const std::string& text, std::chrono::milliseconds timeout);
  // Waits until the child's standard error contains `text`; false on time-out.
  bool waitForErrorText(const std::string& text, std::chrono::milliseconds timeout);
  void signal(int signal) const;
  // The exit status (128 + N for a child killed by signal N); absent on time-out, in
  // which case the child is killed.
  std::optional<int> wait(std::chrono::milliseconds timeout);

  std::string standardOutput() const;
  std::string standardError() const;

 private:
  bool running();

  std::filesystem::path folder_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

// Runs a program to its end (bounded by `timeout`) and gives its status and output.
struct Completed {
  std::optional<int> status;
  std::string out;
  std::string err;
};
Completed run(const std::string& program, const std::vector<std::string>& arguments,
              std::chrono::milliseconds timeout = std::chrono::seconds(30), ChildProcess::Options options = {});

}  // namespace vkq::testing
