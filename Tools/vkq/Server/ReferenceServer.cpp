#include "Tools/vkq/Server/ReferenceServer.h"

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <limits>
#include <span>
#include <string>
#include <thread>
#include <variant>

#include "Platform/Serialization/Object.h"
#include "Tools/vkq/Server/FileResponder.h"

namespace vkq::tool {
namespace {

using vkq::platform::JSON;

constexpr const char* kFilesPrefix = "/files/";

std::span<const std::uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::optional<std::string> header(const httplib::Request& request, const char* name) {
  if (!request.has_header(name)) return std::nullopt;
  return request.get_header_value(name);
}

// Query parameters as an object of strings; a repeated name gives an array.
JSON queryObject(const httplib::Params& params) {
  JSON object = JSON::object();
  for (const auto& [name, value] : params) {
    if (!object.contains(name)) {
      object[name] = value;
    } else {
      JSON& existing = object[name];
      if (!existing.is_array()) existing = JSON::array({existing});
      existing.push_back(value);
    }
  }
  return object;
}

// The body bytes an answer sends before the connection is cut.
std::size_t bodyCut(std::optional<std::uint64_t> dropEvery) {
  return dropEvery ? static_cast<std::size_t>(*dropEvery) : std::numeric_limits<std::size_t>::max();
}

}  // namespace

ReferenceServer::ReferenceServer(Options options)
    : options_(std::move(options)), server_(std::make_unique<httplib::Server>()) {
  // An idle keep-alive connection holds up stop() for at most this long.
  server_->set_keep_alive_timeout(1);
  server_->set_pre_routing_handler([this](const httplib::Request&, httplib::Response& response) {
    if (requestsSeen_.fetch_add(1) >= options_.failFirst) return httplib::Server::HandlerResponse::Unhandled;
    response.status = 503;
    response.set_header("Retry-After", "1");
    response.set_content("unavailable, try again later\n", "text/plain");
    return httplib::Server::HandlerResponse::Handled;
  });
  server_->Post("/kxp/echo", [this](const httplib::Request& request, httplib::Response& response) {
    echoKXP(request, response);
  });
  const auto json = [this](const httplib::Request& request, httplib::Response& response) {
    echoJSON(request, response);
  };
  server_->Get("/json/echo", json);
  server_->Post("/json/echo", json);
  server_->Put("/json/echo", json);
  server_->Patch("/json/echo", json);
  server_->Delete("/json/echo", json);
  server_->Get("/files/.*", [this](const httplib::Request& request, httplib::Response& response) {
    sendFile(request, response);
  });
  server_->set_logger([this](const httplib::Request& request, const httplib::Response& response) {
    logExchange(request, response);
  });
}

ReferenceServer::~ReferenceServer() = default;

std::optional<int> ReferenceServer::bind(std::uint16_t port) {
  if (port == 0) {
    const int bound = server_->bind_to_any_port("127.0.0.1");
    return bound > 0 ? std::optional<int>(bound) : std::nullopt;
  }
  return server_->bind_to_port("127.0.0.1", port) ? std::optional<int>(port) : std::nullopt;
}

void ReferenceServer::run() {
  std::atomic<bool> listening = true;
  std::thread listener([this, &listening] {
    server_->listen_after_bind();
    listening = false;
  });
  stop_->wait();
  // cpp-httplib's stop() does nothing before its loop runs, and stop() may come just
  // after bind(): wait for the loop (or its failure) before stopping it.
  while (listening && !server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  server_->stop();
  listener.join();
}

void ReferenceServer::stop() { stop_->trigger(); }

void ReferenceServer::echoKXP(const httplib::Request& request, httplib::Response& response) const {
  vkq::platform::ErrorPtr refusal;
  const auto payload = VKQKXPServerCodec::parseRequestFrame(bytesOf(request.body), options_.frame, &refusal);
  if (!payload) {
    response.status = 400;
    setBody(response, "kxp frame refused: " + refusal->localizedDescription() + "\n", "text/plain");
    return;
  }
  const auto frame = VKQKXPServerCodec::makeResponseFrame(*payload, options_.frame);
  if (!frame) {
    response.status = 500;
    setBody(response, "the payload could not be framed\n", "text/plain");
    return;
  }
  setBody(response, std::string(frame->begin(), frame->end()), "application/octet-stream");
}

void ReferenceServer::echoJSON(const httplib::Request& request, httplib::Response& response) const {
  JSON answer;
  if (request.body.empty()) {
    answer = queryObject(request.params);
  } else {
    answer = JSON::parse(request.body, nullptr, /*allow_exceptions=*/false);
    if (answer.is_discarded()) {
      response.status = 400;
      setBody(response, JSON{{"error", "the body is not valid JSON"}}.dump(), "application/json");
      return;
    }
  }
  setBody(response, answer.dump(-1, ' ', false, JSON::error_handler_t::replace), "application/json");
}

void ReferenceServer::sendFile(const httplib::Request& request, httplib::Response& response) const {
  // cpp-httplib applies a parsed Range header to every answer by itself, without
  // clamping it to the content; this route decides about ranges on its own.
  const_cast<httplib::Request&>(request).ranges.clear();

  if (!options_.root) {
    response.status = 404;
    return;
  }
  const ResolvedFile resolved =
      resolveUnderRoot(*options_.root, std::string_view(request.path).substr(std::string_view(kFilesPrefix).size()));
  if (const int* status = std::get_if<int>(&resolved)) {
    response.status = *status;
    return;
  }
  const std::filesystem::path& path = std::get<std::filesystem::path>(resolved);
  const auto validators = FileValidators::of(path);
  auto file = std::make_shared<std::ifstream>(path, std::ios::binary);
  if (!validators || !*file) {
    response.status = 404;
    return;
  }

  response.set_header("Accept-Ranges", "bytes");
  response.set_header("ETag", validators->etag);
  response.set_header("Last-Modified", validators->lastModified);
  const RangeDecision decision = decideRange(header(request, "Range"), header(request, "If-Range"), *validators);
  ByteRange range{0, validators->size};
  switch (decision.kind) {
    case RangeDecision::Kind::Unsatisfiable:
      response.status = 416;
      response.set_header("Content-Range", "bytes */" + std::to_string(validators->size));
      return;
    case RangeDecision::Kind::Partial:
      range = decision.range;
      response.status = 206;
      response.set_header("Content-Range", "bytes " + std::to_string(range.first) + "-" +
                                               std::to_string(range.first + range.length - 1) + "/" +
                                               std::to_string(validators->size));
      break;
    case RangeDecision::Kind::Whole:
      response.status = 200;
      break;
  }
  if (range.length == 0) return;  // an empty file
  logLine(request.method + " " + request.path + ": sending bytes " + std::to_string(range.first) + "-" +
          std::to_string(range.first + range.length - 1) + " of " + std::to_string(validators->size));

  file->seekg(static_cast<std::streamoff>(range.first));
  auto pacer = std::make_shared<Pacer>(options_.rateLimit);
  response.set_content_provider(
      static_cast<std::size_t>(range.length), "application/octet-stream",
      [file, pacer, stop = stop_, cut = bodyCut(options_.dropEvery)](std::size_t offset, std::size_t length,
                                                                        httplib::DataSink& sink) {
        if (offset >= cut) return false;  // closes the connection
        std::string chunk(std::min({length, pacer->chunkSize(), cut - offset}), '\0');
        file->read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        if (file->gcount() != static_cast<std::streamsize>(chunk.size())) return false;  // shrank meanwhile
        if (!sink.write(chunk.data(), chunk.size())) return false;
        return pacer->sent(chunk.size(), *stop);
      });
}

void ReferenceServer::setBody(httplib::Response& response, std::string body, const char* contentType) const {
  const std::size_t cut = bodyCut(options_.dropEvery);
  if (body.size() <= cut) {
    response.set_content(std::move(body), contentType);
    return;
  }
  response.set_content_provider(
      body.size(), contentType, [body = std::move(body), cut](std::size_t offset, std::size_t, httplib::DataSink& sink) {
        if (offset < cut) sink.write(body.data() + offset, cut - offset);
        return false;  // closes the connection after the first `cut` bytes
      });
}

void ReferenceServer::logExchange(const httplib::Request& request, const httplib::Response& response) const {
  const auto range = header(request, "Range");
  logLine(request.method + " " + request.path + " -> " + std::to_string(response.status) +
          (range ? "  Range: " + *range : std::string()));
}

void ReferenceServer::logLine(const std::string& line) const {
  if (options_.log == nullptr) return;
  // One call per line, so that lines of concurrent answers do not interleave.
  std::fprintf(options_.log, "%s\n", line.c_str());
  std::fflush(options_.log);
}

}  // namespace vkq::tool
