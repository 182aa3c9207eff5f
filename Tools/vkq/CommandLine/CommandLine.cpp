#include "Tools/vkq/CommandLine/CommandLine.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>

#include "Classes/Serialization/VKQKXPRequestSettings.h"
#include "Classes/VKQVesk.h"

namespace vkq::tool {
namespace {

constexpr const char* kKXPUsage =
    "usage: vkq kxp URL (--data TEXT | --data-file FILE) [options]\n"
    "  Sends one KXP request and prints the answer's payload.\n"
    "  --data TEXT            the payload\n"
    "  --data-file FILE       the payload from FILE (\"-\": standard input)\n"
    "  --output FILE          write the payload to FILE instead of standard output\n"
    "  --header \"Name: value\" an extra header field (repeatable)\n"
    "  --timeout SECONDS      time-out of the request (default 60)\n"
    "  frame settings (numbers in decimal or 0x-hex; defaults as the library's):\n"
    "  --xor-key N            mask key 0-255 (0: no mask)\n"
    "  --version N            protocol version 0-255 (0: no version byte)\n"
    "  --begin-marker N       begin marker 0-65535 (0: none; default 0x2018)\n"
    "  --no-compress          send the payload uncompressed\n"
    "  --no-os-type           leave out the OS-type byte\n"
    "  --package-name S       add the CRC-32 of the package name\n"
    "  --release-version N    add the CRC-32 of the release version when > 0\n"
    "  --non-protocol         send and receive raw bytes, no frame\n"
    "  --verbose              show the library's debug log on standard error\n";

constexpr const char* kJSONUsage =
    "usage: vkq json URL [options]\n"
    "  Sends one JSON request and prints the decoded answer.\n"
    "  --method M             GET (default), POST, HEAD, PUT, DELETE or PATCH\n"
    "  --arg JSON             the argument: the body, or the query of GET/HEAD/DELETE\n"
    "  --header \"Name: value\" an extra header field (repeatable)\n"
    "  --user U --password P  basic authorization\n"
    "  --timeout SECONDS      time-out of the request (default 60)\n"
    "  --verbose              show the library's debug log on standard error\n";

constexpr const char* kDownloadUsage =
    "usage: vkq download URL PATH [options]\n"
    "  Downloads URL to PATH (a file, or an existing folder). An interrupted download\n"
    "  (Ctrl-C) resumes when the same PATH is downloaded again.\n"
    "  --timeout SECONDS      time-out of the request (default 60)\n"
    "  --verbose              show the library's debug log on standard error\n";

constexpr const char* kServeUsage =
    "usage: vkq serve [options]\n"
    "  Runs the reference server on 127.0.0.1 until Ctrl-C:\n"
    "    POST /kxp/echo        answers the request frame's payload in a response frame\n"
    "    GET|POST|... /json/echo  answers the query or the JSON body as JSON\n"
    "    GET /files/PATH       files under --root, with Range, ETag and Last-Modified\n"
    "  --port N               port to listen on (default 0: any free port)\n"
    "  --root DIR             folder whose files are served\n"
    "  --rate-limit N         send files at N bytes per second at most\n"
    "  frame settings as for `vkq kxp` (--xor-key, --version, --begin-marker,\n"
    "  --no-compress, --no-os-type, --package-name, --release-version, --non-protocol)\n"
    "  --verbose              show the library's debug log on standard error\n";

std::string withUsage(const std::string& message, const char* usage) { return message + "\n\n" + usage; }

std::vector<OptionSpec> withCommonOptions(std::vector<OptionSpec> options) {
  options.push_back({"--help"});
  options.push_back({"--verbose"});
  return options;
}

std::vector<OptionSpec> frameOptions() {
  return {{"--xor-key", true},     {"--version", true},         {"--begin-marker", true},
          {"--no-compress"},       {"--no-os-type"},            {"--package-name", true},
          {"--release-version", true}, {"--non-protocol"}};
}

// The settings of a KXP request with the library's defaults, changed by the options.
VKQKXPFrameSettings parseFrameSettings(const ParsedArguments& parsed) {
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

HeaderFields parseHeaders(const ParsedArguments& parsed) {
  HeaderFields headers;
  for (const std::string& field : parsed.values("--header")) {
    const auto colon = field.find(':');
    if (colon == std::string::npos || colon == 0) {
      throw UsageError("--header must look like \"Name: value\", not \"" + field + "\"");
    }
    std::string value = field.substr(colon + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    headers.emplace_back(field.substr(0, colon), std::move(value));
  }
  return headers;
}

std::optional<double> parseTimeout(const ParsedArguments& parsed) {
  if (auto timeout = parsed.value("--timeout")) return parseSeconds(*timeout, "--timeout");
  return std::nullopt;
}

// The positional arguments, exactly `count` of them, named in `names` for the message.
const std::vector<std::string>& requirePositionals(const ParsedArguments& parsed, std::size_t count,
                                                   const char* names) {
  if (parsed.positionals().size() != count) {
    throw UsageError(std::string("expected ") + names + ", got " + std::to_string(parsed.positionals().size()) +
                     " argument(s)");
  }
  return parsed.positionals();
}

KXPCommand parseKXP(const ParsedArguments& parsed) {
  KXPCommand command;
  command.url = requirePositionals(parsed, 1, "URL")[0];
  command.dataText = parsed.value("--data");
  command.dataFile = parsed.value("--data-file");
  if (command.dataText.has_value() == command.dataFile.has_value()) {
    throw UsageError("give exactly one of --data and --data-file");
  }
  command.frame = parseFrameSettings(parsed);
  command.headers = parseHeaders(parsed);
  command.timeout = parseTimeout(parsed);
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

JSONCommand parseJSON(const ParsedArguments& parsed) {
  JSONCommand command;
  command.url = requirePositionals(parsed, 1, "URL")[0];
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
  command.timeout = parseTimeout(parsed);
  return command;
}

DownloadCommand parseDownload(const ParsedArguments& parsed) {
  const auto& positionals = requirePositionals(parsed, 2, "URL and PATH");
  return DownloadCommand{positionals[0], positionals[1], parseTimeout(parsed)};
}

ServeCommand parseServe(const ParsedArguments& parsed) {
  requirePositionals(parsed, 0, "no arguments");
  ServeCommand command;
  if (auto port = parsed.value("--port")) command.port = parseInteger<std::uint16_t>(*port, "--port");
  command.frame = parseFrameSettings(parsed);
  command.root = parsed.value("--root");
  if (auto rate = parsed.value("--rate-limit")) {
    command.rateLimit =
        static_cast<std::uint64_t>(parseInteger(*rate, 1, std::numeric_limits<std::int64_t>::max(), "--rate-limit"));
  }
  return command;
}

struct Subcommand {
  const char* name;
  const char* usage;
  std::vector<OptionSpec> options;
  Command (*parse)(const ParsedArguments&);
};

std::vector<Subcommand> subcommands() {
  auto kxpOptions = frameOptions();
  kxpOptions.insert(kxpOptions.end(), {{"--data", true},
                                       {"--data-file", true},
                                       {"--output", true},
                                       {"--header", true, true},
                                       {"--timeout", true}});
  auto serveOptions = frameOptions();
  serveOptions.insert(serveOptions.end(), {{"--port", true}, {"--root", true}, {"--rate-limit", true}});
  return {
      {"kxp", kKXPUsage, withCommonOptions(std::move(kxpOptions)),
       [](const ParsedArguments& p) -> Command { return parseKXP(p); }},
      {"json", kJSONUsage,
       withCommonOptions({{"--method", true},
                          {"--arg", true},
                          {"--header", true, true},
                          {"--user", true},
                          {"--password", true},
                          {"--timeout", true}}),
       [](const ParsedArguments& p) -> Command { return parseJSON(p); }},
      {"download", kDownloadUsage, withCommonOptions({{"--timeout", true}}),
       [](const ParsedArguments& p) -> Command { return parseDownload(p); }},
      {"serve", kServeUsage, withCommonOptions(std::move(serveOptions)),
       [](const ParsedArguments& p) -> Command { return parseServe(p); }},
  };
}

}  // namespace

std::string generalUsage() {
  std::string text = "vkq: requests through the VKQVesk library, and its reference server.\n\n";
  for (const Subcommand& subcommand : subcommands()) text += std::string(subcommand.usage) + "\n";
  text += "Exit status: 0 on success; 1 network, 2 http, 3 protocol, 4 server error;\n"
          "64 bad arguments; 130 interrupted.\n";
  return text;
}

Invocation parseCommandLine(std::span<const std::string> arguments) {
  if (arguments.empty()) throw UsageError(withUsage("missing subcommand", generalUsage().c_str()));
  if (arguments[0] == "--help" || arguments[0] == "-h" || arguments[0] == "help") {
    return Invocation{HelpCommand{generalUsage()}, false};
  }
  for (const Subcommand& subcommand : subcommands()) {
    if (arguments[0] != subcommand.name) continue;
    try {
      // --help wins over every other mistake, so that a broken line can still ask.
      const auto rest = arguments.subspan(1);
      if (std::find(rest.begin(), rest.end(), "--help") != rest.end()) {
        return Invocation{HelpCommand{subcommand.usage}, false};
      }
      const ParsedArguments parsed = ArgumentParser(subcommand.options).parse(rest);
      return Invocation{subcommand.parse(parsed), parsed.has("--verbose")};
    } catch (const UsageError& error) {
      throw UsageError(withUsage(error.what(), subcommand.usage));
    }
  }
  throw UsageError(withUsage("unknown subcommand \"" + arguments[0] + "\"", generalUsage().c_str()));
}

}  // namespace vkq::tool
