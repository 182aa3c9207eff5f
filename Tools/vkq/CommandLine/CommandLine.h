// CommandLine: what the user asked `vkq` to do, parsed from its arguments.
//
//   vkq kxp URL ...       one KXP exchange
//   vkq json URL ...      one JSON exchange
//   vkq download URL PATH a resumable download
//   vkq serve ...         the reference server
//
// parseCommandLine() does no I/O: it checks the arguments (with CLI11 for the options
// and subcommands, and the rules of Numbers.h for their values) and returns a Command;
// files named in it are read by whoever runs the command. `--help` anywhere after a
// subcommand (or alone) yields a HelpCommand with the text to print.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Classes/Serialization/VKQKXPServerCodec.h"
#include "Classes/VKQVeskRequest.h"
#include "Platform/Serialization/Object.h"
#include "Tools/vkq/CommandLine/Numbers.h"

namespace vkq::tool {

// "Name: value" header fields, in command-line order.
using HeaderFields = std::vector<std::pair<std::string, std::string>>;

// How a request subcommand runs its exchange.
struct ExchangeOptions {
  std::optional<double> timeout;  // idle time-out in seconds; absent: the request's default
  int retries = 0;                // exchanges after a first one that failed retryably
  bool retryNonIdempotent = false;  // retries for POST and PATCH too (so for every KXP request)
  std::optional<double> maxTime;  // seconds the whole request may take; absent: no limit
  bool metrics = false;           // print the result's metrics as one JSON line on standard error
};

struct KXPCommand {
  std::string url;
  // Exactly one of the two: the payload text, or the file holding it ("-": stdin).
  std::optional<std::string> dataText;
  std::optional<std::string> dataFile;
  VKQKXPFrameSettings frame;  // the request defaults unless options change them
  HeaderFields headers;
  ExchangeOptions exchange;
  std::optional<std::string> output;  // absent: standard output
};

struct JSONCommand {
  std::string url;
  VKQRequestMethod method = VKQRequestMethodGET;
  vkq::platform::Object argument;  // absent when --arg was not given
  HeaderFields headers;
  // User name and password, both or neither.
  std::optional<std::pair<std::string, std::string>> credentials;
  ExchangeOptions exchange;
};

struct DownloadCommand {
  std::string url;
  std::string path;
  ExchangeOptions exchange;
};

struct ServeCommand {
  std::uint16_t port = 0;  // 0: any free port
  VKQKXPFrameSettings frame;
  std::optional<std::string> root;  // absent: no files are served
  std::optional<std::uint64_t> rateLimit;  // bytes per second for files; absent: no limit
  std::optional<std::uint64_t> dropEvery;  // body bytes per answer before the connection is cut
  std::uint64_t failFirst = 0;             // requests answered 503 before the others
};

struct HelpCommand {
  std::string text;
};

using Command = std::variant<KXPCommand, JSONCommand, DownloadCommand, ServeCommand, HelpCommand>;

struct Invocation {
  Command command;
  bool verbose = false;  // --verbose: the library's debug log goes to standard error
};

// `arguments` excludes the program name. Throws UsageError (its text ends with the
// usage of the subcommand concerned) for anything malformed.
Invocation parseCommandLine(std::span<const std::string> arguments);

// The usage of every subcommand, as `vkq --help` prints it.
std::string generalUsage();

}  // namespace vkq::tool
