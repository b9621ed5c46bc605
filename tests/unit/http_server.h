// A scripted web server for the unit tests.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "test_support.h"
#include "utility/file.h"

namespace test_support {

/// Serves on a free port of 127.0.0.1 in its own thread, one request per connection and one
/// connection after the other. A path without a reply is answered with status 404 and the body
/// "no such file\n". Every wait has a timeout, and the destructor stops the server. While the
/// object exists, libcurl in this process uses no proxy.
class HttpServer {
 public:
  /// What happens to a connection after the reply.
  enum class End {
    kClose,
    kReset,  ///< is reset
    kHold,   ///< stays open until the server stops
  };

  HttpServer();
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// Address and port, like "127.0.0.1:34567".
  [[nodiscard]] std::string host() const;

  /// The URL of @a path, which begins with "/".
  [[nodiscard]] std::string url(const std::string& path) const;

  /// Answers @a path from now on with a complete, well-formed reply.
  void reply(const std::string& path, const std::string& body, int status = 200);

  /// Answers @a path from now on with exactly these bytes, status line and headers included.
  void reply_raw(const std::string& path, std::string bytes, End end = End::kClose);

  /// The requests so far, in order, like "GET /norvak/version.txt".
  [[nodiscard]] std::vector<std::string> requests() const;

  /// The same with their headers: all bytes before the empty line.
  [[nodiscard]] std::vector<std::string> raw_requests() const;

  /// Waits for @a count requests.
  /// @return false if there were fewer after 20 seconds
  [[nodiscard]] bool wait_for_requests(std::size_t count) const;

 private:
  struct Reply {
    std::string bytes;
    End end = End::kClose;
  };

  void serve();
  void serve_connection(utility::Descriptor connection);
  [[nodiscard]] bool wait_for_input(int fd, int milliseconds) const;
  [[nodiscard]] std::string read_request(int connection) const;
  [[nodiscard]] Reply record_request(const std::string& request);

  ScopedVariable no_proxy_{"no_proxy", "*"};
  utility::Descriptor listener_;
  utility::Descriptor stop_;  ///< an eventfd: readable once the server is to stop
  std::uint16_t port_ = 0;
  std::vector<utility::Descriptor> held_;  ///< used by the server's thread only

  mutable std::mutex mutex_;  ///< guards the following members
  mutable std::condition_variable request_came_;
  std::map<std::string, Reply, std::less<>> replies_;
  std::vector<std::string> requests_;

  std::promise<void> is_serving_;
  std::thread thread_;  // last, because it uses all other members
};

}  // namespace test_support
