// Shared by the tests of the four updaters.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "http_server.h"
#include "test_support.h"
#include "utility/file.h"

namespace test_support {

/// The log line of a download whose reply was truncated.
inline constexpr char kCutShort[] = "CUrlOp::url_down_file: curl_easy_perform failed[18]";

/// A test of an updater, with the files of an agent and a scripted update server.
class UpdaterTest : public AgentTest {
 protected:
  /// Names and values.
  using Settings = std::vector<std::pair<std::string, std::string>>;

  /// Writes a config.xml with the settings in this order.
  void write_config(const Settings& settings) const;

  /// The address of the update server, as written in the configuration.
  [[nodiscard]] std::string server_address() const { return server_.url(""); }

  /// Answers @a path with a truncated reply.
  void reply_cut_short(const std::string& path);

  /// Answers @a path with an empty body, which leaves no file.
  void reply_empty(const std::string& path) { server_.reply(path, ""); }

  HttpServer server_;
};

/// Records the changes of names in some directories.
class DirectoryWatch {
 public:
  explicit DirectoryWatch(const std::vector<std::string>& directories);

  /// The changes of @a names, in order: "create NAME", "delete NAME", or "put NAME" if another file
  /// was renamed to it.
  [[nodiscard]] std::vector<std::string> events(const std::set<std::string>& names) const;

 private:
  utility::Descriptor inotify_;
};

/// Creates a socket at @a path: it exists, but not even root can open it.
void make_unopenable(const std::string& path);

/// Creates a directory with a file in it at @a path, so that unlink() and remove() fail.
void make_full_directory(const std::string& path);

/// The requests for these paths, as HttpServer records them.
std::vector<std::string> gets(const std::vector<std::string>& paths);

}  // namespace test_support
