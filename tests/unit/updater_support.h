// What the tests of the four updaters share.
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

/// The log line of a download whose reply was cut short.
inline constexpr char kCutShort[] = "CUrlOp::url_down_file: curl_easy_perform failed[18]";

/// A test of an updater: the files of an agent, and an update server that the test scripts.
class UpdaterTest : public AgentTest {
 protected:
  /// Names and values.
  using Settings = std::vector<std::pair<std::string, std::string>>;

  /// Writes a config.xml with these settings, in this order.
  void write_config(const Settings& settings) const;

  /// The address of the update server, as it stands in the configuration.
  [[nodiscard]] std::string server_address() const { return server_.url(""); }

  /// Answers @a path with the first part of a reply.
  void reply_cut_short(const std::string& path);

  /// Answers @a path with no byte at all, which leaves no file.
  void reply_empty(const std::string& path) { server_.reply(path, ""); }

  HttpServer server_;
};

/// Notes what happens to the names in some directories.
class DirectoryWatch {
 public:
  explicit DirectoryWatch(const std::vector<std::string>& directories);

  /// What happened to @a names, in its order: "create NAME", "delete NAME", or "put NAME" when
  /// another file was renamed to it.
  [[nodiscard]] std::vector<std::string> events(const std::set<std::string>& names) const;

 private:
  utility::Descriptor inotify_;
};

/// Makes something at @a path that is there but cannot be opened, not even by root: a socket.
void make_unopenable(const std::string& path);

/// Makes a directory at @a path, with something in it, so that no file can take its place.
void make_full_directory(const std::string& path);

/// The requests for these paths, as HttpServer notes them.
std::vector<std::string> gets(const std::vector<std::string>& paths);

/// Names the cases of a table by their member `name`.
template <typename Case>
std::string case_name(const testing::TestParamInfo<Case>& table_case) {
  return table_case.param.name;
}

}  // namespace test_support
