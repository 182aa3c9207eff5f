#include "Tools/vkq/Client/Client.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>

#include "Classes/VKQVeskResult.h"
#include "Tools/vkq/Client/Exchange.h"
#include "Tools/vkq/Client/ProgressBar.h"
#include "Tools/vkq/Client/ToolVesk.h"
#include "Tools/vkq/ExitStatus.h"

namespace vkq::tool {
namespace {

using vkq::platform::Bytes;

// Answers nested deeper than this are printed on one line: indenting each value by its
// depth would multiply the size of a deep answer by its depth.
constexpr std::size_t kMaximumIndentedDepth = 32;

std::optional<Bytes> readFile(const std::string& path) {
  if (path == "-") return Bytes(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  Bytes bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) return std::nullopt;
  return bytes;
}

bool writeOutput(const std::optional<std::string>& path, const Bytes& bytes) {
  if (!path) {
    std::cout.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    std::cout.flush();
    return static_cast<bool>(std::cout);
  }
  std::ofstream file(*path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  file.close();
  return static_cast<bool>(file);
}

// Later fields of the same name win, as they would on a command line.
void addHeaders(VKQHeaderDictionary& dictionary, const HeaderFields& fields) {
  for (const auto& [name, value] : fields) dictionary[name] = value;
}

void applyFrameSettings(VKQVesk& vesk, const VKQKXPFrameSettings& frame) {
  vesk.insertAtBeginBodyPromise()(frame.insertAtBeginBody)
      ->protocolVCPromise()(frame.version)
      ->uploadOSTypePromise()(frame.uploadOSType)
      ->packageNamePromise()(frame.packageName)
      ->releaseVersionPromise()(static_cast<std::uint32_t>(frame.releaseVersion))
      ->compressPromise()(frame.compress)
      ->xorkeyPromise()(frame.xorKey);
  if (frame.nonProtocol) vesk.nonProtocolPromise()();
}

// The first line of a text answer that failed validation (an error status), which is
// where a server says why; absent for other answers.
std::optional<std::string> serverExplanation(const vkq::platform::Error& error) {
  const auto& info = error.userInfo();
  if (!info.response || !info.responseData || info.responseData->empty()) return std::nullopt;
  const auto type = info.response->MIMEType();
  if (!type || !type->starts_with("text/")) return std::nullopt;
  std::string text = vkq::platform::stringFromBytes(*info.responseData);
  text = text.substr(0, std::min(text.find('\n'), std::size_t{200}));
  return text.empty() ? std::nullopt : std::optional(text);
}

void applyExchangeOptions(ToolVesk& vesk, const ExchangeOptions& exchange) {
  vesk.setTimeoutInterval(exchange.timeout);
  vesk.maximumRetryCountPromise()(exchange.retries)
      ->retriesNonIdempotentRequestsPromise()(exchange.retryNonIdempotent)
      ->requestDeadlineIntervalPromise()(exchange.maxTime);
}

// The result's metrics as one line of JSON.
std::string metricsLine(const vkq::platform::URLSessionTaskMetrics& m) {
  const nlohmann::json line = {
      {"name_lookup_s", m.nameLookup},  {"connect_s", m.connect},       {"tls_s", m.secureConnect},
      {"request_sent_s", m.requestSent}, {"first_byte_s", m.firstByte}, {"total_s", m.total},
      {"bytes_sent", m.bytesSent},       {"bytes_received", m.bytesReceived},
      {"http_version", m.httpVersion},   {"reused_connection", m.reusedConnection},
      {"retries", m.retries},            {"resumed_from_byte", m.resumedFromByte},
  };
  return line.dump();
}

// Prints why a request failed, and its metrics when asked; the exit status for its
// outcome.
int conclude(const ExchangeOutcome& result, const VKQVeskRequest& request, const ExchangeOptions& exchange) {
  if (!result) {
    std::cerr << "vkq: interrupted\n";
    return kExitInterrupted;
  }
  if (exchange.metrics) std::cerr << metricsLine(result->metrics()) << "\n";
  const std::int64_t code = result->responseCode()->code();
  if (code != 0) {
    std::cerr << "vkq: " << result->responseCode()->msg().value_or("unknown error") << " (code " << code << ")\n";
    if (auto error = request.error()) {
      std::cerr << "vkq: " << error->localizedDescription() << "\n";
      if (auto explanation = serverExplanation(*error)) std::cerr << "vkq: the server said: " << *explanation << "\n";
    }
  }
  return exitStatusForResultCode(code);
}

}  // namespace

int Client::run(const KXPCommand& command) const {
  std::optional<Bytes> payload =
      command.dataText ? vkq::platform::bytesFromString(*command.dataText) : readFile(*command.dataFile);
  if (!payload) {
    std::cerr << "vkq: cannot read " << *command.dataFile << "\n";
    return kExitNoInput;
  }

  auto vesk = std::make_shared<ToolVesk>();
  vesk->defultValue();
  vesk->setUrl(command.url);
  vesk->setRequestData(std::make_shared<Bytes>(std::move(*payload)));
  applyFrameSettings(*vesk, command.frame);
  VKQHeaderDictionary headers{{"Content-Type", "application/octet-stream"}};
  addHeaders(headers, command.headers);
  vesk->setHeaders(std::move(headers));
  applyExchangeOptions(*vesk, command.exchange);

  const auto result = runExchange(
      vesk, [&](VKQVeskRequest::ResultBlock done) { vesk->requestCompletion(std::move(done)); }, interrupted_);
  const int status = conclude(result, *vesk, command.exchange);
  if (status != kExitSuccess) return status;
  if (!result->data().isData()) return kExitSuccess;
  if (!writeOutput(command.output, *result->data().data())) {
    std::cerr << "vkq: cannot write " << command.output.value_or("standard output") << "\n";
    return kExitCannotCreate;
  }
  return kExitSuccess;
}

int Client::run(const JSONCommand& command) const {
  auto vesk = std::make_shared<ToolVesk>();
  vesk->defultValue();
  vesk->requestSerializerTypePromise()(VKQRequestSerializerTypeJSON)
      ->responseSerializerTypePromise()(VKQResponseSerializerTypeJSON)
      ->requestMethedPromise()(command.method);
  vesk->setUrl(command.url);
  vesk->setArgument(command.argument);
  if (!command.headers.empty()) {
    VKQHeaderDictionary headers;
    addHeaders(headers, command.headers);
    vesk->setHeaders(std::move(headers));
  }
  vesk->setCredentials(command.credentials);
  applyExchangeOptions(*vesk, command.exchange);

  const auto result = runExchange(
      vesk, [&](VKQVeskRequest::ResultBlock done) { vesk->requestCompletion(std::move(done)); }, interrupted_);
  const int status = conclude(result, *vesk, command.exchange);
  if (status == kExitSuccess && result->data().isJSON()) {
    const nlohmann::json& answer = result->data().json();
    const int indent = vkq::platform::nestingDepth(answer) > kMaximumIndentedDepth ? -1 : 2;
    std::cout << answer.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
  }
  return status;
}

int Client::run(const DownloadCommand& command) const {
  // The resume data of a download is kept under its path: make the path independent
  // of the working folder, so that any later run for the same file resumes it.
  std::error_code error;
  const std::filesystem::path path = std::filesystem::absolute(command.path, error);
  if (error) {
    std::cerr << "vkq: bad path " << command.path << ": " << error.message() << "\n";
    return kExitUsage;
  }

  auto vesk = std::make_shared<ToolVesk>();
  vesk->setResumableDownloadPath(path.string());
  vesk->requestSerializerTypePromise()(VKQRequestSerializerTypeJSON)
      ->responseSerializerTypePromise()(VKQResponseSerializerTypeKXP)
      ->nonProtocolPromise()();
  vesk->GET();
  vesk->setUrl(command.url);
  applyExchangeOptions(*vesk, command.exchange);

  // Shared with the transport's threads, which may report progress until they stop.
  auto bar = std::make_shared<ProgressBar>(stderr);
  const auto result = runExchange(
      vesk,
      [&](VKQVeskRequest::ResultBlock done) {
        vesk->downloadtWithSuccess(
            done, [bar](const vkq::platform::Progress& progress) { bar->update(progress); }, done);
      },
      interrupted_);
  bar->finish();
  const int status = conclude(result, *vesk, command.exchange);
  if (status == kExitSuccess) {
    const std::string saved = result->data().isURL() ? result->data().url().filePath() : path.string();
    std::cerr << "vkq: saved " << saved << "\n";
  }
  return status;
}

}  // namespace vkq::tool
