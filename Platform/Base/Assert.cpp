#include "Platform/Base/Assert.h"

#include <cstdlib>
#include <mutex>
#include <utility>

namespace vkq::platform {
namespace {

std::mutex& handlerMutex() {
  static std::mutex mutex;
  return mutex;
}

AssertionHandler& installedHandler() {
  static AssertionHandler handler;
  return handler;
}

}  // namespace

InternalInconsistencyException::InternalInconsistencyException(AssertionFailure failure)
    : std::logic_error(failure.description), failure_(std::move(failure)) {}

void setAssertionHandler(AssertionHandler handler) {
  std::lock_guard lock(handlerMutex());
  installedHandler() = std::move(handler);
}

std::string sourcePathFromClasses(std::string_view path) {
  constexpr std::string_view kRoot = "Classes/";
  if (auto at = path.rfind(kRoot); at != std::string_view::npos && (at == 0 || path[at - 1] == '/')) {
    path.remove_prefix(at);
  }
  const auto nameStart = path.rfind('/') == std::string_view::npos ? 0 : path.rfind('/') + 1;
  if (auto dot = path.rfind('.'); dot != std::string_view::npos && dot >= nameStart) path = path.substr(0, dot);
  if (auto plus = path.find('+', nameStart); plus != std::string_view::npos && plus > nameStart) {
    path = path.substr(0, plus);
  }
  return std::string(path);
}

void handleAssertionFailure(std::string description, std::string_view sourcePath, int line) {
  AssertionFailure failure{std::move(description), sourcePathFromClasses(sourcePath), line};
  AssertionHandler handler;
  {
    std::lock_guard lock(handlerMutex());
    handler = installedHandler();
  }
  if (!handler) throw InternalInconsistencyException(std::move(failure));
  handler(failure);
  std::abort();
}

}  // namespace vkq::platform
