#include "http_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace test_support {

namespace {

constexpr int kForever = -1;
constexpr int kPatienceMilliseconds = 20000;
constexpr std::chrono::milliseconds kPatience(kPatienceMilliseconds);
constexpr int kBacklog = 16;
constexpr char kEndOfHeaders[] = "\r\n\r\n";

std::string http_reply(int status, const std::string& body) {
  return "HTTP/1.1 " + std::to_string(status) +
         " Test\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

/// A socket that listens on a free port of the loopback interface.
utility::Descriptor listen_on_loopback() {
  utility::Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (!listener ||
      ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener.get(), kBacklog) != 0)
    throw std::runtime_error("no test server");
  return listener;
}

std::uint16_t port_of(int listener) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  if (::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0)
    throw std::runtime_error("no port for the test server");
  return ntohs(address.sin_port);
}

/// The method and the path of a request: everything before its second blank.
std::string request_line(const std::string& request) {
  const std::string::size_type method_end = request.find(' ');
  return method_end == std::string::npos ? request
                                         : request.substr(0, request.find(' ', method_end + 1));
}

void send_all(int connection, std::string_view bytes) {
  const timeval patience = {kPatienceMilliseconds / 1000, 0};
  (void)::setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  while (!bytes.empty()) {
    const ssize_t count = ::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

/// Makes close() reset the connection.
void reset_at_close(int connection) {
  const linger none = {1, 0};
  (void)::setsockopt(connection, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

}  // namespace

HttpServer::HttpServer()
    : listener_(listen_on_loopback()),
      stop_(::eventfd(0, EFD_CLOEXEC)),
      port_(port_of(listener_.get())),
      thread_([this] { serve(); }) {
  // A thread that is still starting may hold a lock of the allocator, which a fork would copy.
  is_serving_.get_future().wait();
}

HttpServer::~HttpServer() {
  const std::uint64_t one = 1;
  (void)utility::write_all(stop_.get(), &one, sizeof one);
  thread_.join();
}

std::string HttpServer::host() const { return "127.0.0.1:" + std::to_string(port_); }

std::string HttpServer::url(const std::string& path) const { return "http://" + host() + path; }

void HttpServer::reply(const std::string& path, const std::string& body, int status) {
  reply_raw(path, http_reply(status, body));
}

void HttpServer::reply_raw(const std::string& path, std::string bytes, End end) {
  const std::lock_guard lock(mutex_);
  replies_[path] = Reply{std::move(bytes), end};
}

std::vector<std::string> HttpServer::requests() const {
  std::vector<std::string> lines;
  for (const std::string& request : raw_requests()) lines.push_back(request_line(request));
  return lines;
}

std::vector<std::string> HttpServer::raw_requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

bool HttpServer::wait_for_requests(std::size_t count) const {
  std::unique_lock lock(mutex_);
  return request_came_.wait_for(lock, kPatience, [&] { return requests_.size() >= count; });
}

void HttpServer::serve() {
  is_serving_.set_value();
  while (wait_for_input(listener_.get(), kForever)) {
    utility::Descriptor connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection) serve_connection(std::move(connection));
  }
}

void HttpServer::serve_connection(utility::Descriptor connection) {
  const std::string request = read_request(connection.get());
  if (request.empty()) return;
  const Reply reply = record_request(request);
  send_all(connection.get(), reply.bytes);
  if (reply.end == End::kReset) reset_at_close(connection.get());
  if (reply.end == End::kHold) held_.push_back(std::move(connection));
}

/// @return false if the server is stopping or the time limit has passed
bool HttpServer::wait_for_input(int fd, int milliseconds) const {
  std::array<pollfd, 2> waited_for = {pollfd{fd, POLLIN, 0}, pollfd{stop_.get(), POLLIN, 0}};
  return ::poll(waited_for.data(), waited_for.size(), milliseconds) > 0 &&
         waited_for[1].revents == 0;
}

/// @return the request without its final empty line; empty if it is incomplete
std::string HttpServer::read_request(int connection) const {
  std::string request;
  while (wait_for_input(connection, kPatienceMilliseconds)) {
    std::array<char, 4096> block{};
    const ssize_t count = utility::read_some(connection, block.data(), block.size());
    if (count <= 0) break;
    request.append(block.data(), static_cast<std::size_t>(count));
    const std::string::size_type end = request.find(kEndOfHeaders);
    if (end != std::string::npos) return request.substr(0, end);
  }
  return {};
}

HttpServer::Reply HttpServer::record_request(const std::string& request) {
  const std::string line = request_line(request);
  const std::lock_guard lock(mutex_);
  requests_.push_back(request);
  request_came_.notify_all();
  const auto reply = replies_.find(line.substr(line.find(' ') + 1));
  return reply != replies_.end() ? reply->second : Reply{http_reply(404, "no such file\n")};
}

}  // namespace test_support
