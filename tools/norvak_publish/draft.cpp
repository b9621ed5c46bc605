#include "draft.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "files.h"

namespace publish {

namespace fs = std::filesystem;

Draft::Draft(fs::path root, std::vector<fs::path> published)
    : root_(std::move(root)), published_(std::move(published)) {}

void Draft::put_copy(const std::string& server_path, const fs::path& source) {
  if (holds_copy(file(server_path), source)) return;
  make_directories(file(server_path).parent_path());
  install_copy(source, file(server_path), next_time(server_path));
  changes_.push_back(server_path.substr(1));
}

void Draft::put_text(const std::string& server_path, const std::string& text) {
  if (holds_text(file(server_path), text)) return;
  make_directories(file(server_path).parent_path());
  install_text(text, file(server_path), next_time(server_path));
  changes_.push_back(server_path.substr(1));
}

fs::path Draft::file(const std::string& server_path) const { return root_ / server_path.substr(1); }

std::time_t Draft::next_time(const std::string& server_path) const {
  std::time_t time = std::time(nullptr);
  for (const fs::path& directory : published_) {
    time = std::max(time, modification_time(directory / server_path.substr(1)) + 1);
  }
  return time;
}

}  // namespace publish
