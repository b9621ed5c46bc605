#include "traces.h"

#include <sys/stat.h>

#include <algorithm>

#include "agent_files.h"
#include "utility/durable_file.h"
#include "utility/file.h"

namespace host {

namespace {

std::vector<const char*> suffixes(UpdateType type) {
  switch (type) {
    case UpdateType::kSoft:
      return {agent_files::kSoftWorkDir, agent_files::kUpdateMarker};
    case UpdateType::kKernel:
      return {agent_files::kKernelWorkDir};
    case UpdateType::kNginx:
      return {agent_files::kNginxWorkDir};
    case UpdateType::kRules:
      break;
  }
  return {agent_files::kRuleWorkDir};
}

}  // namespace

std::vector<std::string> leftovers(const std::string& install_dir, UpdateType type) {
  std::vector<std::string> found;
  for (const char* const suffix : suffixes(type)) {
    const std::string path = install_dir + suffix;
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0) found.push_back(path);
  }
  return found;
}

std::vector<std::string> config_leftovers(const std::string& install_dir) {
  const std::string config = std::string(agent_files::kConfig).substr(1);
  std::vector<std::string> found;
  const utility::DirPtr directory(::opendir(install_dir.c_str()));
  if (!directory) return found;
  while (const dirent* const entry = ::readdir(directory.get())) {
    if (utility::is_new_version_name(entry->d_name, config)) {
      found.push_back(std::string(install_dir).append("/").append(entry->d_name));
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace host
