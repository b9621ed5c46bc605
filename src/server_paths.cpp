#include "server_paths.h"

#include "agent_files.h"

namespace server_paths {

namespace {

constexpr char kPackage[] = "/nvupdate.tar";
constexpr char kDigestList[] = "/md5";
constexpr char kNginxProgram[] = "/nginx";

}  // namespace

std::string agent_package(const std::string& arch) { return kAgent + arch + kPackage; }

std::string module_directory(const std::string& distribution, const std::string& arch,
                             const std::string& kernel_version, const std::string& module) {
  return kKernels + distribution + "/" + arch + "/" + kernel_version + "/" + module;
}

std::string module_digest_list(const std::string& directory) { return directory + kDigestList; }

std::string module_file(const std::string& directory, const std::string& module) {
  return directory + "/" + module + agent_files::kModuleSuffix;
}

std::string nginx_directory(const std::string& arch, const std::string& version_dir) {
  return kNginxBuilds + arch + "/" + version_dir;
}

std::string nginx_identification(const std::string& directory) { return directory + kDigestList; }

std::string nginx_program(const std::string& directory) { return directory + kNginxProgram; }

}  // namespace server_paths
