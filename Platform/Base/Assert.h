// Fatal assertions for programming errors (a required argument absent, a task that
// should exist). They are not outcomes of requests: those are result codes.
//
// A failed assertion reports a description, the source file by its path from the
// project's `Classes/` folder without extension (e.g. "Classes/VKQNetworkAgent") and a
// line to the installed handler. The default handler throws
// InternalInconsistencyException carrying all three. A handler that returns does not
// resume the failed operation: the process is aborted.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vkq::platform {

// What a failed assertion reports.
struct AssertionFailure {
  std::string description;  // what should have held, as text
  std::string file;         // the source file: "Classes/VKQNetworkAgent"
  int line = 0;             // the line in it
};

// What the default handler throws; what() is the description.
class InternalInconsistencyException : public std::logic_error {
 public:
  // The exception for `failure`.
  explicit InternalInconsistencyException(AssertionFailure failure);
  // What should have held.
  const std::string& description() const { return failure_.description; }
  // The source file that failed, as AssertionFailure::file.
  const std::string& file() const { return failure_.file; }
  // The line that failed.
  int line() const { return failure_.line; }

 private:
  AssertionFailure failure_;
};

// Receives every failed assertion, on the thread that failed.
using AssertionHandler = std::function<void(const AssertionFailure&)>;

// Installs the process-wide handler; an empty handler restores the default. Thread-safe.
void setAssertionHandler(AssertionHandler handler);

// Reports a failure to the handler. Never returns.
[[noreturn]] void handleAssertionFailure(std::string description, std::string_view sourcePath, int line);

// "/any/where/Classes/Codec/X.cpp" -> "Classes/Codec/X"; other paths lose only their extension.
// A class implemented in several files reports as the class: "Classes/X+Downloads.cpp" -> "Classes/X".
std::string sourcePathFromClasses(std::string_view path);

}  // namespace vkq::platform

// Parameter assertion: "Invalid parameter not satisfying: <condition text>".
#define VKQParameterAssert(condition)                                                              \
  do {                                                                                             \
    if (!(condition))                                                                              \
      ::vkq::platform::handleAssertionFailure(                                                     \
          std::string("Invalid parameter not satisfying: ") + #condition, __FILE__, __LINE__);     \
  } while (0)

// Assertion with a fixed description, e.g. VKQAssert(task, "requestTask should not be nil").
#define VKQAssert(condition, text)                                                                 \
  do {                                                                                             \
    if (!(condition)) ::vkq::platform::handleAssertionFailure((text), __FILE__, __LINE__);         \
  } while (0)
