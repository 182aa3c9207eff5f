// The debug log: `DDDebug(piece, piece, ...)` writes one entry made of pieces.
//
// A piece is a text, a number, or an object with a `description()` member (also behind
// a pointer, shared_ptr or optional; an absent one renders as "(null)"). Each entry
// reaches the installed sink as its list of rendered pieces. The default is no sink:
// nothing is rendered or written until the application installs one. Thread-safe; the
// sink may be called from any thread and must not call back into the log settings.
#pragma once

#include <atomic>
#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace vkq::platform {

// One entry of the log: its rendered pieces, in order.
using LogEntry = std::vector<std::string>;
// Receives every entry, on the thread that wrote it.
using LogSink = std::function<void(const LogEntry& pieces)>;

// Installs the sink; an empty function turns the log off.
void setLogSink(LogSink sink);
// A sink that writes each entry as one line, pieces joined by a space, to standard error.
LogSink standardErrorLogSink();

namespace log_detail {

inline constexpr const char* kAbsent = "(null)";

extern std::atomic<bool> enabled;
void write(LogEntry entry);

template <typename T>
concept Describable = requires(const T& value) {
  { value.description() } -> std::convertible_to<std::string>;
};

template <typename T>
std::string render(const T& piece) {
  using U = std::remove_cvref_t<T>;
  if constexpr (std::is_same_v<U, std::nullptr_t>) {
    return kAbsent;
  } else if constexpr (std::is_same_v<U, bool>) {
    return piece ? "1" : "0";
  } else if constexpr (std::is_same_v<U, char>) {
    return std::string(1, piece);
  } else if constexpr (std::is_integral_v<U>) {
    return std::to_string(piece);
  } else if constexpr (std::is_floating_point_v<U>) {
    std::string text = std::to_string(piece);
    return text;
  } else if constexpr (std::is_same_v<U, const char*> || std::is_same_v<U, char*>) {
    return piece != nullptr ? std::string(piece) : std::string(kAbsent);
  } else if constexpr (std::is_convertible_v<const U&, std::string_view>) {
    return std::string(std::string_view(piece));
  } else if constexpr (Describable<U>) {
    return piece.description();
  } else if constexpr (requires { *piece; static_cast<bool>(piece); }) {
    return piece ? render(*piece) : std::string(kAbsent);
  } else {
    static_assert(Describable<U>, "a log piece must be a text, a number or describable");
    return {};
  }
}

}  // namespace log_detail
}  // namespace vkq::platform

// Writes one debug entry of the given pieces. Costs one atomic load when the log is off.
template <typename... Pieces>
void DDDebug(const Pieces&... pieces) {
  namespace d = vkq::platform::log_detail;
  if (!d::enabled.load(std::memory_order_acquire)) return;
  d::write(vkq::platform::LogEntry{d::render(pieces)...});
}
