#include "Tests/Support/TestServer.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <stdexcept>

#include <sys/socket.h>

namespace vkq::testing {
namespace {

// cpp-httplib listens with a backlog of 5, so a burst of connections loses SYNs and
// waits for TCP's retransmissions (1 s, 3 s, 7 s...). This gives access to the
// listening socket to widen it.
template <typename Base>
class WideBacklogServer : public Base {
 public:
  using Base::Base;
  void widenBacklog() { ::listen(this->svr_sock_, SOMAXCONN); }
};

constexpr std::size_t kFilePieceSize = 64 * 1024;

struct ByteRange {
  std::size_t first;
  std::optional<std::size_t> last;
};

// "bytes=N-" or "bytes=N-M"; anything else (suffix ranges, lists) is not understood.
std::optional<ByteRange> parseRange(const std::string& header) {
  constexpr std::string_view prefix = "bytes=";
  if (header.rfind(prefix, 0) != 0) return std::nullopt;
  const std::string rangeSet = header.substr(prefix.size());
  const auto dash = rangeSet.find('-');
  if (dash == std::string::npos || dash == 0 || rangeSet.find(',') != std::string::npos) return std::nullopt;
  try {
    ByteRange range{std::stoull(rangeSet.substr(0, dash)), std::nullopt};
    if (dash + 1 < rangeSet.size()) range.last = std::stoull(rangeSet.substr(dash + 1));
    return range;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> RecordedRequest::header(const std::string& name) const {
  const auto it = headers.find(name);
  if (it == headers.end()) return std::nullopt;
  return it->second;
}

std::string httpDate(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts);
  return text;
}

TestServer::TestServer() : TestServer(Options{}) {}

TestServer::TestServer(Options options) {
  if (options.certificateFile && options.privateKeyFile) {
    auto server = std::make_unique<WideBacklogServer<httplib::SSLServer>>(options.certificateFile->c_str(),
                                                                          options.privateKeyFile->c_str());
    widenBacklog_ = [raw = server.get()] { raw->widenBacklog(); };
    server_ = std::move(server);
    tls_ = true;
  } else {
    auto server = std::make_unique<WideBacklogServer<httplib::Server>>();
    widenBacklog_ = [raw = server.get()] { raw->widenBacklog(); };
    server_ = std::move(server);
  }
  if (!server_->is_valid()) throw std::runtime_error("test server: cannot set up (TLS files?)");

  const std::size_t threads = options.threads;
  server_->new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  // An idle keep-alive connection holds a handler thread and delays stop() by up to
  // this long, so keep it short.
  server_->set_keep_alive_timeout(1);
  server_->set_keep_alive_max_count(1'000'000);
  server_->set_tcp_nodelay(true);

  const auto route = [this](const httplib::Request& request, httplib::Response& response) {
    dispatch(request, response);
  };
  const std::string any = ".*";
  server_->Get(any, route);
  server_->Post(any, route);
  server_->Put(any, route);
  server_->Patch(any, route);
  server_->Delete(any, route);
  server_->Options(any, route);

  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("test server: cannot bind to 127.0.0.1");
  widenBacklog_();
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // stop() does nothing until the server runs, so a stop() right after construction
  // would leave the accept loop running for ever.
  while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
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

std::string TestServer::baseURL() const {
  return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_);
}

std::string TestServer::url(std::string_view path) const { return baseURL() + std::string(path); }

void TestServer::answer(const std::string& path, ScriptedAnswer answer) {
  handle(path, [this, answer = std::move(answer)](const httplib::Request&, httplib::Response& response) {
    play(answer, response);
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

std::size_t TestServer::requestCount() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
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

  RecordedRequest record{request.method, request.path, {}, request.headers, request.body};
  if (const auto mark = request.target.find('?'); mark != std::string::npos) {
    record.query = request.target.substr(mark + 1);
  }
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

void TestServer::play(const ScriptedAnswer& answer, httplib::Response& response) {
  switch (answer.failure) {
    case Failure::NeverAnswer: {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return stopping_; });
      response.status = 503;
      return;
    }
    case Failure::StallBeforeAnswer:
      if (!pause(answer.delay)) return;
      break;
    case Failure::None:
    case Failure::DropMidBody:
    case Failure::SlowBody:
      break;
  }

  response.status = answer.status;
  for (const auto& [name, value] : answer.headers) response.set_header(name, value);

  if (answer.failure == Failure::DropMidBody) {
    const auto body = std::make_shared<std::string>(answer.body);
    const std::size_t limit = std::min(answer.dropAfterBytes, body->size());
    response.set_content_provider(body->size(), answer.contentType,
                                  [body, limit](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                    if (offset >= limit) return false;  // closes the connection
                                    sink.write(body->data() + offset, std::min(length, limit - offset));
                                    return true;
                                  });
  } else if (answer.failure == Failure::SlowBody) {
    const auto body = std::make_shared<std::string>(answer.body);
    const std::size_t piece = std::max<std::size_t>(answer.pieceSize, 1);
    const auto delay = answer.delay;
    response.set_content_provider(
        body->size(), answer.contentType,
        [this, body, piece, delay](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          if (!pause(delay)) return false;
          sink.write(body->data() + offset, std::min({length, piece, body->size() - offset}));
          return true;
        });
  } else {
    response.set_content(answer.body, answer.contentType);
  }
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

  std::optional<ByteRange> range;
  if (request.has_header("Range")) range = parseRange(request.get_header_value("Range"));
  if (range && request.has_header("If-Range")) {
    const std::string condition = request.get_header_value("If-Range");
    if (condition != options.etag.value_or("") && condition != options.lastModified.value_or("")) range.reset();
  }

  std::size_t first = 0;
  std::size_t length = size;
  response.status = 200;
  if (range) {
    if (range->first >= size) {
      response.status = 416;
      response.set_header("Content-Range", "bytes */" + std::to_string(size));
      return;
    }
    const std::size_t last = std::min(range->last.value_or(size - 1), size - 1);
    first = range->first;
    length = last - first + 1;
    response.status = 206;
    response.set_header("Content-Range",
                        "bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" + std::to_string(size));
  }

  std::shared_ptr<std::FILE> stream(std::fopen(file.c_str(), "rb"), [](std::FILE* f) {
    if (f != nullptr) std::fclose(f);
  });
  if (!stream || std::fseek(stream.get(), static_cast<long>(first), SEEK_SET) != 0) {
    response.status = 500;
    return;
  }
  const std::size_t limit = std::min(options.dropAfterBytes.value_or(length), length);
  const auto delay = options.pieceDelay;
  response.set_content_provider(
      length, "application/octet-stream",
      [this, stream, limit, delay](std::size_t offset, std::size_t wanted, httplib::DataSink& sink) {
        if (offset >= limit) return false;  // closes the connection
        if (delay.count() > 0 && !pause(delay)) return false;
        char buffer[kFilePieceSize];
        const std::size_t count =
            std::fread(buffer, 1, std::min({wanted, sizeof buffer, limit - offset}), stream.get());
        if (count == 0) return false;
        sink.write(buffer, count);
        return true;
      });
}

}  // namespace vkq::testing
