#include "updater_support.h"

#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstring>
#include <stdexcept>

namespace test_support {

void UpdaterTest::write_config(const Settings& settings) const {
  std::string text = "<?xml version=\"1.0\"?>\n<norvak>\n<Process>\n<Data>\n";
  for (const auto& [name, value] : settings) {
    text.append("<var name=\"").append(name);
    text.append("\" value=\"").append(value).append("\"/>\n");
  }
  write_file(agent("config.xml"), text + "</Data>\n</Process>\n</norvak>\n");
}

void UpdaterTest::reply_cut_short(const std::string& path) {
  server_.reply_raw(path, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\ncut short");
}

DirectoryWatch::DirectoryWatch(const std::vector<std::string>& directories)
    : inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  for (const std::string& directory : directories) {
    if (::inotify_add_watch(inotify_.get(), directory.c_str(),
                            IN_CREATE | IN_DELETE | IN_MOVED_TO) < 0)
      throw std::runtime_error("cannot watch " + directory);
  }
}

std::vector<std::string> DirectoryWatch::events(const std::set<std::string>& names) const {
  std::vector<std::string> events;
  std::array<char, 16384> block{};
  ssize_t size = 0;
  while ((size = utility::read_some(inotify_.get(), block.data(), block.size())) > 0) {
    for (const char* at = block.data(); at < block.data() + size;) {
      inotify_event event = {};
      std::memcpy(&event, at, sizeof event);
      const std::string name = event.len == 0 ? "" : at + sizeof event;
      at += sizeof event + event.len;
      if (names.count(name) == 0) continue;
      const char* const what = (event.mask & IN_CREATE) != 0   ? "create "
                               : (event.mask & IN_DELETE) != 0 ? "delete "
                                                               : "put ";
      events.push_back(what + name);
    }
  }
  return events;
}

void make_unopenable(const std::string& path) {
  const utility::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, path.size());
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

void make_full_directory(const std::string& path) { write_file(path + "/occupant", "occupant"); }

std::vector<std::string> gets(const std::vector<std::string>& paths) {
  std::vector<std::string> requests;
  requests.reserve(paths.size());
  for (const std::string& path : paths) requests.push_back("GET " + path);
  return requests;
}

}  // namespace test_support
