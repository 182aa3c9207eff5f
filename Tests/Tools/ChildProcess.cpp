#include "Tests/Tools/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace vkq::testing {
namespace {

namespace fs = std::filesystem;

std::string readAll(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

int statusOf(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw); }

// Polls `condition` every 10 ms until it holds or the time-out passes.
template <typename Condition>
bool pollUntil(Condition condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments, Options options) {
  static std::atomic<int> counter{0};
  folder_ = fs::temp_directory_path() /
            ("vkq-child-" + std::to_string(getpid()) + "-" + std::to_string(counter.fetch_add(1)));
  fs::create_directories(folder_);
  const fs::path input = folder_ / "stdin";
  std::ofstream(input, std::ios::binary) << options.standardInput;

  // Everything the child needs is prepared before fork(): after it, only
  // async-signal-safe calls.
  std::vector<std::string> strings{program};
  strings.insert(strings.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);
  const std::string inPath = input.string();
  const std::string outPath = (folder_ / "stdout").string();
  const std::string errPath = (folder_ / "stderr").string();
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string variable(*entry);
    if (!options.environment.contains(variable.substr(0, variable.find('=')))) environment.push_back(variable);
  }
  for (const auto& [name, value] : options.environment) environment.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (std::string& s : environment) envp.push_back(s.data());
  envp.push_back(nullptr);

  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    const int in = open(inPath.c_str(), O_RDONLY);
    const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || out < 0 || err < 0) _exit(127);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    // The test runner may block signals; the child starts with the defaults.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
}

ChildProcess::~ChildProcess() {
  if (running()) {
    kill(pid_, SIGKILL);
    int raw = 0;
    waitpid(pid_, &raw, 0);
  }
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

bool ChildProcess::running() {
  if (status_) return false;
  int raw = 0;
  if (waitpid(pid_, &raw, WNOHANG) == pid_) {
    status_ = statusOf(raw);
    return false;
  }
  return true;
}

std::optional<std::string> ChildProcess::waitForOutputLine(const std::string& text,
                                                           std::chrono::milliseconds timeout) {
  std::optional<std::string> found;
  pollUntil(
      [&] {
        std::istringstream lines(standardOutput());
        for (std::string line; std::getline(lines, line);) {
          // Only complete lines: the last one may still be written.
          if (line.find(text) != std::string::npos && !lines.eof()) {
            found = line;
            return true;
          }
        }
        return !running();
      },
      timeout);
  return found;
}

bool ChildProcess::waitForErrorText(const std::string& text, std::chrono::milliseconds timeout) {
  return pollUntil([&] { return standardError().find(text) != std::string::npos; }, timeout);
}

void ChildProcess::signal(int signal) const { kill(pid_, signal); }

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (pollUntil([&] { return !running(); }, timeout)) return status_;
  kill(pid_, SIGKILL);
  int raw = 0;
  waitpid(pid_, &raw, 0);
  status_ = statusOf(raw);
  return std::nullopt;
}

std::string ChildProcess::standardOutput() const { return readAll(folder_ / "stdout"); }
std::string ChildProcess::standardError() const { return readAll(folder_ / "stderr"); }

Completed run(const std::string& program, const std::vector<std::string>& arguments,
              std::chrono::milliseconds timeout, ChildProcess::Options options) {
  ChildProcess child(program, arguments, std::move(options));
  Completed completed;
  completed.status = child.wait(timeout);
  completed.out = child.standardOutput();
  completed.err = child.standardError();
  return completed;
}

}  // namespace vkq::testing
