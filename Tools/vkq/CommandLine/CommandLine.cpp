#include "Tools/vkq/CommandLine/CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <deque>
#include <limits>
#include <map>

#include "Classes/Serialization/VKQKXPRequestSettings.h"
#include "Classes/VKQVesk.h"
#include "Platform/HTTP/HTTPHeaders.h"
#include "Platform/HTTP/URLRequest.h"

namespace vkq::tool {
namespace {

constexpr const char* kFrameGroup = "Frame settings (numbers in decimal or 0x-hex; defaults as the library's)";

constexpr const char* kExitStatus =
    "Exit status: 0 on success; 1 network, 2 http, 3 protocol, 4 server error;\n"
    "64 bad arguments; 130 interrupted.";

// One subcommand's options and positional arguments as the user gave them, as texts by
// name ("--timeout", "URL"). CLI11 finds them; they are converted and checked after
// parsing, so that every number follows the rules of Numbers.h.
class GivenOptions {
 public:
  explicit GivenOptions(CLI::App& app) : app_(app) {}

  // A positional argument the subcommand needs.
  void positional(const std::string& name, const std::string& help) {
    app_.add_option(name, texts_[name], help)->required()->type_name("");
  }
  // An option that takes a value, given at most once.
  void option(const std::string& name, const std::string& valueName, const std::string& help,
              const std::string& group = "Options") {
    app_.add_option(name, texts_[name], help)->type_name(valueName)->group(group);
  }
  // An option that may be given many times; its values in command-line order.
  void repeatable(const std::string& name, const std::string& valueName, const std::string& help) {
    app_.add_option(name, lists_[name], help)->type_name(valueName)->allow_extra_args(false);
  }
  void flag(const std::string& name, const std::string& help, const std::string& group = "Options") {
    app_.add_flag(name, help)->group(group);
  }

  // False also for an option the subcommand does not take.
  bool has(const std::string& name) const {
    const CLI::Option* option = app_.get_option_no_throw(name);
    return option != nullptr && option->count() > 0;
  }
  std::optional<std::string> value(const std::string& name) const {
    if (!has(name)) return std::nullopt;
    return texts_.at(name);
  }
  const std::vector<std::string>& values(const std::string& name) const { return lists_.at(name); }
  const CLI::App& app() const { return app_; }

 private:
  CLI::App& app_;
  std::map<std::string, std::string> texts_;
  std::map<std::string, std::vector<std::string>> lists_;
};

void declareFrameOptions(GivenOptions& options) {
  options.option("--xor-key", "N", "mask key 0-255 (0: no mask)", kFrameGroup);
  options.option("--version", "N", "protocol version 0-255 (0: no version byte)", kFrameGroup);
  options.option("--begin-marker", "N", "begin marker 0-65535 (0: none; default 0x2018)", kFrameGroup);
  options.flag("--no-compress", "send the payload uncompressed", kFrameGroup);
  options.flag("--no-os-type", "leave out the OS-type byte", kFrameGroup);
  options.option("--package-name", "S", "add the CRC-32 of the package name", kFrameGroup);
  options.option("--release-version", "N", "add the CRC-32 of the release version when > 0", kFrameGroup);
  options.flag("--non-protocol", "send and receive raw bytes, no frame", kFrameGroup);
}

// The options of every request subcommand; `retryingPosts` for those that send POSTs.
void declareExchangeOptions(GivenOptions& options, bool retryingPosts) {
  options.option("--timeout", "SECONDS", "time-out of the request (default 60)");
  options.option("--retries", "N", "send again up to N times after a lost connection, time-out or 408/429/5xx");
  if (retryingPosts) options.flag("--retry-non-idempotent", "let --retries repeat a POST or PATCH");
  options.option("--max-time", "SECONDS", "give up after SECONDS in all, retries included");
  options.flag("--metrics", "print the exchange's timings and counts as JSON on standard error");
}

// The settings of a KXP request with the library's defaults, changed by the options.
VKQKXPFrameSettings parseFrameSettings(const GivenOptions& parsed) {
  auto defaults = std::make_shared<VKQVesk>();
  defaults->defultValue();
  VKQKXPFrameSettings frame = VKQKXPFrameSettingsOf(*defaults);

  if (auto key = parsed.value("--xor-key")) frame.xorKey = parseInteger<std::uint8_t>(*key, "--xor-key");
  if (auto version = parsed.value("--version")) frame.version = parseInteger<std::uint8_t>(*version, "--version");
  if (auto marker = parsed.value("--begin-marker")) {
    frame.insertAtBeginBody = parseInteger<std::uint16_t>(*marker, "--begin-marker");
  }
  if (parsed.has("--no-compress")) frame.compress = false;
  if (parsed.has("--no-os-type")) frame.uploadOSType = false;
  if (auto name = parsed.value("--package-name")) frame.packageName = *name;
  if (auto release = parsed.value("--release-version")) {
    // Signed, or an unsigned 32-bit pattern ("0xFFFFFFFF") kept bit for bit.
    const std::int64_t value = parseInteger(*release, std::numeric_limits<std::int32_t>::min(),
                                            std::numeric_limits<std::uint32_t>::max(), "--release-version");
    frame.releaseVersion = static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
  }
  if (parsed.has("--non-protocol")) frame.nonProtocol = true;
  return frame;
}

HeaderFields parseHeaders(const GivenOptions& parsed) {
  HeaderFields headers;
  for (const std::string& field : parsed.values("--header")) {
    const auto colon = field.find(':');
    if (colon == std::string::npos || colon == 0) {
      throw UsageError("--header must look like \"Name: value\", not \"" + field + "\"");
    }
    std::string value = field.substr(colon + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    if (!platform::isValidHeaderField(field.substr(0, colon), value)) {
      throw UsageError("--header \"" + field.substr(0, colon) + "\" holds a line break");
    }
    headers.emplace_back(field.substr(0, colon), std::move(value));
  }
  return headers;
}

// Seconds within the library's time-out range.
double parseTimeInterval(const std::string& text, const char* what) {
  const double seconds = parseSeconds(text, what);
  if (seconds < platform::kMinimumTimeoutInterval || seconds > platform::kMaximumTimeoutInterval) {
    const auto shown = [](double value) {
      char digits[32];
      return std::string(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
    };
    throw UsageError(std::string(what) + " must be from " + shown(platform::kMinimumTimeoutInterval) + " to " +
                     shown(platform::kMaximumTimeoutInterval) + " seconds, not " + text);
  }
  return seconds;
}

ExchangeOptions parseExchangeOptions(const GivenOptions& parsed) {
  ExchangeOptions exchange;
  if (auto timeout = parsed.value("--timeout")) exchange.timeout = parseTimeInterval(*timeout, "--timeout");
  if (auto retries = parsed.value("--retries")) {
    exchange.retries = static_cast<int>(parseInteger(*retries, 0, 100, "--retries"));
  }
  exchange.retryNonIdempotent = parsed.has("--retry-non-idempotent");
  if (auto maxTime = parsed.value("--max-time")) exchange.maxTime = parseTimeInterval(*maxTime, "--max-time");
  exchange.metrics = parsed.has("--metrics");
  return exchange;
}

KXPCommand parseKXP(const GivenOptions& parsed) {
  KXPCommand command;
  command.url = *parsed.value("URL");
  command.dataText = parsed.value("--data");
  command.dataFile = parsed.value("--data-file");
  if (command.dataText.has_value() == command.dataFile.has_value()) {
    throw UsageError("give exactly one of --data and --data-file");
  }
  command.frame = parseFrameSettings(parsed);
  command.headers = parseHeaders(parsed);
  command.exchange = parseExchangeOptions(parsed);
  command.output = parsed.value("--output");
  return command;
}

VKQRequestMethod parseMethod(const std::string& text) {
  static constexpr std::array<std::pair<const char*, VKQRequestMethod>, 6> kMethods{{
      {"GET", VKQRequestMethodGET},
      {"POST", VKQRequestMethodPOST},
      {"HEAD", VKQRequestMethodHEAD},
      {"PUT", VKQRequestMethodPUT},
      {"DELETE", VKQRequestMethodDELETE},
      {"PATCH", VKQRequestMethodPATCH},
  }};
  std::string upper = text;
  std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
  for (const auto& [name, method] : kMethods) {
    if (upper == name) return method;
  }
  throw UsageError("--method must be GET, POST, HEAD, PUT, DELETE or PATCH, not \"" + text + "\"");
}

JSONCommand parseJSON(const GivenOptions& parsed) {
  JSONCommand command;
  command.url = *parsed.value("URL");
  if (auto method = parsed.value("--method")) command.method = parseMethod(*method);
  if (auto argument = parsed.value("--arg")) {
    auto json = vkq::platform::JSON::parse(*argument, nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded()) throw UsageError("--arg is not valid JSON: " + *argument);
    command.argument = std::move(json);
  }
  command.headers = parseHeaders(parsed);
  auto user = parsed.value("--user");
  auto password = parsed.value("--password");
  if (user.has_value() != password.has_value()) throw UsageError("--user and --password go together");
  // Basic authorization joins the two with ':', so the user name cannot hold one.
  if (user && user->find(':') != std::string::npos) throw UsageError("--user must not contain ':'");
  if (user) command.credentials.emplace(*user, *password);
  command.exchange = parseExchangeOptions(parsed);
  return command;
}

DownloadCommand parseDownload(const GivenOptions& parsed) {
  return DownloadCommand{*parsed.value("URL"), *parsed.value("PATH"), parseExchangeOptions(parsed)};
}

ServeCommand parseServe(const GivenOptions& parsed) {
  ServeCommand command;
  if (auto port = parsed.value("--port")) command.port = parseInteger<std::uint16_t>(*port, "--port");
  command.frame = parseFrameSettings(parsed);
  command.root = parsed.value("--root");
  constexpr auto kMaximum = std::numeric_limits<std::int64_t>::max();
  if (auto rate = parsed.value("--rate-limit")) {
    command.rateLimit = static_cast<std::uint64_t>(parseInteger(*rate, 1, kMaximum, "--rate-limit"));
  }
  if (auto drop = parsed.value("--drop-every")) {
    command.dropEvery = static_cast<std::uint64_t>(parseInteger(*drop, 1, kMaximum, "--drop-every"));
  }
  if (auto fail = parsed.value("--fail-first")) {
    command.failFirst = static_cast<std::uint64_t>(parseInteger(*fail, 0, kMaximum, "--fail-first"));
  }
  return command;
}

// A subcommand: what it declares to CLI11, and how its options become a Command.
struct Subcommand {
  const char* name;
  const char* description;
  void (*declare)(GivenOptions&);
  Command (*build)(const GivenOptions&);
};

const std::array<Subcommand, 4> kSubcommands{{
    {"kxp", "Sends one KXP request and prints the answer's payload.",
     [](GivenOptions& o) {
       o.positional("URL", "where to send the request");
       o.option("--data", "TEXT", "the payload");
       o.option("--data-file", "FILE", "the payload from FILE (\"-\": standard input)");
       o.option("--output", "FILE", "write the payload to FILE instead of standard output");
       o.repeatable("--header", "\"Name: value\"", "an extra header field (repeatable)");
       declareExchangeOptions(o, true);
       declareFrameOptions(o);
     },
     [](const GivenOptions& o) -> Command { return parseKXP(o); }},
    {"json", "Sends one JSON request and prints the decoded answer.",
     [](GivenOptions& o) {
       o.positional("URL", "where to send the request");
       o.option("--method", "M", "GET (default), POST, HEAD, PUT, DELETE or PATCH");
       o.option("--arg", "JSON", "the argument: the body, or the query of GET/HEAD/DELETE");
       o.repeatable("--header", "\"Name: value\"", "an extra header field (repeatable)");
       o.option("--user", "U", "user name for basic authorization (with --password)");
       o.option("--password", "P", "password for basic authorization (with --user)");
       declareExchangeOptions(o, true);
     },
     [](const GivenOptions& o) -> Command { return parseJSON(o); }},
    {"download",
     "Downloads URL to PATH (a file, or an existing folder). An interrupted download\n"
     "(Ctrl-C) resumes when the same PATH is downloaded again.",
     [](GivenOptions& o) {
       o.positional("URL", "what to download");
       o.positional("PATH", "the file to write, or the folder to write it in");
       declareExchangeOptions(o, false);
     },
     [](const GivenOptions& o) -> Command { return parseDownload(o); }},
    {"serve",
     "Runs the reference server on 127.0.0.1 until Ctrl-C:\n"
     "  POST /kxp/echo           answers the request frame's payload in a response frame\n"
     "  GET|POST|... /json/echo  answers the query or the JSON body as JSON\n"
     "  GET /files/PATH          files under --root, with Range, ETag and Last-Modified",
     [](GivenOptions& o) {
       o.option("--port", "N", "port to listen on (default 0: any free port)");
       o.option("--root", "DIR", "folder whose files are served");
       o.option("--rate-limit", "N", "send files at N bytes per second at most");
       o.option("--drop-every", "BYTES", "close the connection after BYTES body bytes of each answer");
       o.option("--fail-first", "N", "answer the first N requests 503 with Retry-After: 1");
       declareFrameOptions(o);
     },
     [](const GivenOptions& o) -> Command { return parseServe(o); }},
}};

// The whole command line: vkq and its subcommands, with the options each one takes.
class Grammar {
 public:
  Grammar() : app_("vkq: requests through the VKQVesk library, and its reference server.", "vkq") {
    auto formatter = std::make_shared<CLI::Formatter>();
    formatter->label("Usage", "usage");
    formatter->column_width(30);
    app_.formatter(formatter);
    app_.require_subcommand(1);
    app_.footer(kExitStatus);
    for (const Subcommand& subcommand : kSubcommands) {
      CLI::App* app = app_.add_subcommand(subcommand.name, subcommand.description);
      GivenOptions& options = options_.emplace_back(*app);
      subcommand.declare(options);
      options.flag("--verbose", "show the library's debug log on standard error");
    }
  }

  std::string generalUsage() const { return app_.help("", CLI::AppFormatMode::All); }
  std::string usage(std::size_t subcommand) const { return options_[subcommand].app().help("vkq"); }

  Invocation parse(std::span<const std::string> arguments) {
    if (arguments.empty()) throw UsageError(withUsage("missing subcommand", generalUsage()));
    if (isHelp(arguments[0]) || arguments[0] == "help") return Invocation{HelpCommand{generalUsage()}, false};
    const auto chosen = std::find_if(kSubcommands.begin(), kSubcommands.end(),
                                     [&](const Subcommand& s) { return arguments[0] == s.name; });
    if (chosen == kSubcommands.end()) {
      throw UsageError(withUsage("unknown subcommand \"" + arguments[0] + "\"", generalUsage()));
    }
    const auto index = static_cast<std::size_t>(chosen - kSubcommands.begin());
    // --help wins over every other mistake, so that a broken line can still ask.
    if (std::any_of(arguments.begin() + 1, arguments.end(), isHelp)) {
      return Invocation{HelpCommand{usage(index)}, false};
    }
    try {
      std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());  // as CLI11 takes them
      app_.parse(reversed);
      return Invocation{chosen->build(options_[index]), options_[index].has("--verbose")};
    } catch (const CLI::ParseError& error) {
      throw UsageError(withUsage(error.what(), usage(index)));
    } catch (const UsageError& error) {
      throw UsageError(withUsage(error.what(), usage(index)));
    }
  }

 private:
  static bool isHelp(const std::string& argument) { return argument == "--help" || argument == "-h"; }
  static std::string withUsage(const std::string& message, const std::string& usage) {
    return message + "\n\n" + usage;
  }

  CLI::App app_;
  std::deque<GivenOptions> options_;  // by subcommand, in kSubcommands order; stable addresses
};

}  // namespace

std::string generalUsage() { return Grammar().generalUsage(); }

Invocation parseCommandLine(std::span<const std::string> arguments) { return Grammar().parse(arguments); }

}  // namespace vkq::tool
