#include "Tests/Support/TestServer.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include <sys/socket.h>

#include "Tools/vkq/Server/FileResponder.h"

namespace vkq::testing {
namespace {

// cpp-httplib listens with a backlog of 5, so a burst of connections loses SYNs and
// waits for TCP's retransmissions (1 s, 3 s, 7 s...). This reaches the listening socket
// to widen it.
template <typename Base>
struct WideBacklog : Base {
  using Base::Base;
  void widen() { ::listen(this->svr_sock_, SOMAXCONN); }
};

}  // namespace

TestServer::TestServer() : TestServer(Options{}) {}

TestServer::TestServer(Options options) {
  // Keeps `server` and gives what widens its backlog once it is bound.
  const auto keep = [this](auto server) -> std::function<void()> {
    auto* raw = server.get();
    server_ = std::move(server);
    return [raw] { raw->widen(); };
  };
  const auto& pem = options.certificateAndKeyFile;
  const auto widenBacklog = pem ? keep(std::make_unique<WideBacklog<httplib::SSLServer>>(pem->c_str(), pem->c_str()))
                                : keep(std::make_unique<WideBacklog<httplib::Server>>());
  if (!server_->is_valid()) throw std::runtime_error("test server: cannot set up (TLS files?)");

  server_->new_task_queue = [threads = options.threads] { return new httplib::ThreadPool(threads); };
  // An idle keep-alive connection holds a handler thread and delays stop() by up to
  // this long, so keep it short.
  server_->set_keep_alive_timeout(1);
  server_->set_keep_alive_max_count(1'000'000);
  server_->set_tcp_nodelay(true);
  const auto route = [this](const httplib::Request& request, httplib::Response& response) {
    dispatch(request, response);
  };
  server_->Get(".*", route).Post(".*", route).Put(".*", route).Patch(".*", route);
  server_->Delete(".*", route).Options(".*", route);

  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("test server: cannot bind to 127.0.0.1");
  widenBacklog();
  base_ = std::string(pem ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_);
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // stop() does nothing until the server runs, so a stop() right after construction
  // would leave the accept loop running for ever.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!server_->is_running()) {
    if (std::chrono::steady_clock::now() > deadline) {
      thread_.join();  // the accept loop never started: listening failed
      throw std::runtime_error("test server: cannot listen on 127.0.0.1");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

TestServer::~TestServer() { stop(); }

void TestServer::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) {
    server_->stop();
    thread_.join();
  }
}

std::string TestServer::url(std::string_view path) const { return base_ + std::string(path); }

void TestServer::answer(const std::string& path, ScriptedAnswer answer) {
  handle(path, [this, answer = std::move(answer)](const httplib::Request&, httplib::Response& response) {
    if (!answer.answers) {
      pause(std::chrono::hours(24));
      response.status = 503;
      return;
    }
    response.status = answer.status;
    for (const auto& [name, value] : answer.headers) response.set_header(name, value);
    if (answer.pacing.pieceDelay.count() == 0) {
      response.set_content(answer.body, answer.contentType);
      return;
    }
    const auto body = std::make_shared<std::string>(answer.body);
    sendBody(response, body->size(), answer.contentType, answer.pacing,
             [body](std::size_t offset, char* buffer, std::size_t count) {
               return body->copy(buffer, count, offset);
             });
  });
}

void TestServer::handle(const std::string& path, Handler handler) {
  std::lock_guard lock(mutex_);
  routes_[path] = std::move(handler);
}

void TestServer::serveFile(const std::string& path, std::filesystem::path file, FileOptions options) {
  handle(path, [this, file = std::move(file), options = std::move(options)](const httplib::Request& request,
                                                                            httplib::Response& response) {
    sendFile(file, options, request, response);
  });
}

std::vector<RecordedRequest> TestServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

bool TestServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

bool TestServer::pause(std::chrono::milliseconds duration) {
  std::unique_lock lock(mutex_);
  return !changed_.wait_for(lock, duration, [this] { return stopping_; });
}

void TestServer::dispatch(const httplib::Request& request, httplib::Response& response) {
  // cpp-httplib applies a Range header to every answer by itself; the routes here
  // decide about ranges on their own, from the header.
  const_cast<httplib::Request&>(request).ranges.clear();

  RecordedRequest record{request.method, request.path, request.headers, request.body};
  Handler handler;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(std::move(record));
    if (const auto it = routes_.find(request.path); it != routes_.end()) handler = it->second;
  }
  changed_.notify_all();

  if (!handler) {
    response.status = 404;
    response.set_content("no route for " + request.path, "text/plain");
    return;
  }
  handler(request, response);
}

void TestServer::sendBody(httplib::Response& response, std::size_t length, const std::string& type,
                          const BodyPacing& pacing, Reader read) {
  const std::size_t limit = std::min(pacing.dropAfterBytes.value_or(length), length);
  response.set_content_provider(length, type, [this, limit, pacing, read = std::move(read)](
                                                  std::size_t offset, std::size_t wanted, httplib::DataSink& sink) {
    if (offset >= limit || !pause(pacing.pieceDelay)) return false;  // closes the connection
    std::string piece(std::min({wanted, std::max<std::size_t>(pacing.pieceSize, 1), limit - offset}), '\0');
    const std::size_t count = read(offset, piece.data(), piece.size());
    return count > 0 && sink.write(piece.data(), count);
  });
}

void TestServer::sendFile(const std::filesystem::path& file, const FileOptions& options,
                          const httplib::Request& request, httplib::Response& response) {
  std::error_code error;
  const std::size_t size = std::filesystem::file_size(file, error);
  if (error) {
    response.status = 404;
    return;
  }
  if (options.etag) response.set_header("ETag", *options.etag);
  if (options.lastModified) response.set_header("Last-Modified", *options.lastModified);
  response.set_header("Accept-Ranges", "bytes");

  // The reference server's decision, under the validators the test chose.
  const auto header = [&request](const char* name) {
    return request.has_header(name) ? std::optional(request.get_header_value(name)) : std::nullopt;
  };
  using Kind = tool::RangeDecision::Kind;
  const auto decision = tool::decideRange(header("Range"), header("If-Range"),
                                          {options.etag.value_or(""), options.lastModified.value_or(""), size});
  if (decision.kind == Kind::Unsatisfiable) {
    response.status = 416;
    response.set_header("Content-Range", "bytes */" + std::to_string(size));
    return;
  }
  const bool partial = decision.kind == Kind::Partial;
  const std::size_t first = partial ? decision.range.first : 0, length = partial ? decision.range.length : size;
  response.status = partial ? 206 : 200;
  if (partial) {
    response.set_header("Content-Range", "bytes " + std::to_string(first) + "-" + std::to_string(first + length - 1) +
                                             "/" + std::to_string(size));
  }

  std::shared_ptr<std::FILE> stream(std::fopen(file.c_str(), "rb"), [](std::FILE* f) { if (f) std::fclose(f); });
  if (!stream || std::fseek(stream.get(), static_cast<long>(first), SEEK_SET) != 0) {
    response.status = 500;
    return;
  }
  sendBody(response, length, "application/octet-stream", options.pacing,
           [stream](std::size_t, char* buffer, std::size_t count) {
             return std::fread(buffer, 1, count, stream.get());
           });
}

}  // namespace vkq::testing
