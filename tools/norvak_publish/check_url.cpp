#include "check_url.h"

#include <curl/curl.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <vector>

#include "agent_files.h"
#include "check_tree_reader.h"
#include "coverage.h"
#include "failure.h"
#include "fleet.h"
#include "server_paths.h"
#include "transfer.h"
#include "utility/file.h"
#include "version.h"

namespace publish {

namespace fs = std::filesystem;

namespace {

// The updater has no time limit; a check must end.
constexpr long kConnectSeconds = 30;
constexpr long kStallSeconds = 60;
constexpr long kBytesPerSecond = 1;

constexpr long kFirstRedirect = 300;  // HTTP statuses from here on mean no success
constexpr long kFirstError = 400;

class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::string path = (fs::temp_directory_path() / "norvak_publish.XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr) fail_with_errno("cannot create", path);
    path_ = path;
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  ~ScratchDirectory() {
    std::error_code ignored;
    (void)fs::remove_all(path_, ignored);
  }

  [[nodiscard]] const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

/// What a server publishes for one purpose: all of it or nothing.
struct Area {
  std::string file;  ///< as findings name it
  std::vector<std::string> paths;
  bool is_optional;  ///< a server need not have it
};

/// A file that hosts request, and the server's answer.
struct Request {
  const Area* area;
  std::string path;
  fs::path body;
  CURLcode code = CURLE_OK;
  long status = 0;  ///< 0 for protocols other than HTTP

  [[nodiscard]] bool is_answered() const { return code == CURLE_OK; }
  [[nodiscard]] bool has_file() const { return is_answered() && status < kFirstRedirect; }
};

std::size_t write_body(void* data, std::size_t size, std::size_t count, void* user) {
  const auto* const file = static_cast<const utility::Descriptor*>(user);
  return utility::write_all(file->get(), data, size * count) / std::max(size, std::size_t{1});
}

void fetch(const std::string& base, Request& request) {
  utility::Descriptor file(
      ::open(request.body.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_EXCL, utility::kNewFileMode));
  if (!file) fail_with_errno("cannot create", request.body);
  const transfer::CurlPtr curl =
      transfer::prepare((base + request.path).c_str(), write_body, &file);
  if (!curl) throw Failure("libcurl cannot be initialised");
  (void)curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  (void)curl_easy_setopt(curl.get(), CURLOPT_LOW_SPEED_TIME, kStallSeconds);
  (void)curl_easy_setopt(curl.get(), CURLOPT_LOW_SPEED_LIMIT, kBytesPerSecond);
  (void)curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);  // signals and threads do not mix
  request.code = curl_easy_perform(curl.get());
  (void)curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &request.status);
  if (!file.close()) fail_with_errno("cannot write", request.body);
}

std::vector<Area> areas(const CheckOptions& options) {
  const std::string agent = server_paths::kAgentVersion;
  std::vector<Area> result = {{TreeReader::shown(agent),
                               {agent, server_paths::agent_package(server_paths::kX64),
                                server_paths::agent_package(server_paths::kX86)},
                               true},
                              {TreeReader::shown(server_paths::kRules),
                               {server_paths::kRulesDigestList, server_paths::kRules},
                               true}};
  if (options.fleet.empty()) return result;
  for (const KernelCoverage& kernel : group_by_directory(read_fleet_file(options.fleet))) {
    Area area{kernel.directory, {}, false};
    for (const char* name : agent_files::kModules) {
      const std::string directory = module_directory(kernel.kernels.front(), name);
      area.paths.push_back(server_paths::module_digest_list(directory));
      area.paths.push_back(server_paths::module_file(directory, name));
    }
    result.push_back(std::move(area));
  }
  return result;
}

/// Adds the findings about an answer that is not the requested file.
void explain_failure(const Request& request, bool is_published, Findings& findings) {
  const std::string file = TreeReader::shown(request.path);
  if (!request.is_answered()) {
    findings.push_back(make_finding(findings::kTransfer, file,
                                    std::string("The transfer fails: ") +
                                        curl_easy_strerror(request.code) +
                                        ". It fails on hosts, too.",
                                    "Find out where the server or a proxy gives up."));
    return;
  }
  if (version::is_version_file(request.body)) {
    findings.push_back(
        make_finding(findings::kErrorPage, file,
                     "The error page for this file is a single line. Hosts take it for the file: "
                     "as a version it may abort the updater, and as a digest list it makes hosts "
                     "remove modules.",
                     "Let the server answer with a page of several lines."));
  }
  if (is_published) {
    findings.push_back(
        make_finding(findings::kHttpStatus, file,
                     "The server answers with HTTP status " + std::to_string(request.status) +
                         (request.status < kFirstError ? ". Hosts do not follow redirects, and take"
                                                       : ". Hosts take") +
                         " the page that comes with it for the file.",
                     "Let the server send the file itself under this address."));
  }
}

/// Moves the files into the tree @a root and explains the other answers.
/// @return the explained files, as findings name them
std::set<std::string> sort_out(const std::vector<Area>& areas, const std::vector<Request>& requests,
                               const fs::path& root, Findings& findings) {
  std::set<std::string> explained;
  for (const Area& area : areas) {
    const auto is_published = [&area](const Request& request) {
      return request.area == &area && request.has_file();
    };
    const bool some_published = std::any_of(requests.begin(), requests.end(), is_published);
    bool all_answered = true;
    for (const Request& request : requests) {
      if (request.area != &area) continue;
      all_answered = all_answered && request.is_answered();
      if (request.has_file()) {
        const fs::path target = root.string() + request.path;
        (void)fs::create_directories(target.parent_path());
        fs::rename(request.body, target);
      } else {
        explain_failure(request, some_published, findings);
        (void)explained.insert(TreeReader::shown(request.path));
      }
    }
    if (area.is_optional && !some_published && all_answered) {
      findings.push_back(make_finding(findings::kNotPublished, area.file,
                                      "The server publishes nothing of this kind.",
                                      "If hosts are to get it from here: publish it."));
    }
  }
  return explained;
}

}  // namespace

Findings check_url(const std::string& base, const CheckOptions& options) {
  (void)curl_global_init(CURL_GLOBAL_DEFAULT);  // before there are threads
  const ScratchDirectory scratch;
  const std::vector<Area> wanted = areas(options);
  std::vector<Request> requests;
  for (const Area& area : wanted) {
    for (const std::string& path : area.paths) {
      const fs::path body = scratch.path() / std::to_string(requests.size());
      requests.push_back({&area, path, body});
    }
  }
  in_parallel(
      requests.size(), [&](std::size_t i) { fetch(base, requests[i]); }, options.progress);
  if (std::none_of(requests.begin(), requests.end(),
                   [](const Request& request) { return request.is_answered(); })) {
    throw Failure("cannot read " + base + ": " + curl_easy_strerror(requests.front().code));
  }

  Findings findings = {make_finding(
      findings::kBuildsNotChecked, "nginx_new",
      "The builds of the web server program are not checked: a server does not say which it has.",
      "Check the tree on the server itself.")};
  const fs::path root = scratch.path() / "tree";
  (void)fs::create_directory(root);
  fs::permissions(root, fs::perms::others_exec, fs::perm_options::add);
  const std::set<std::string> explained = sort_out(wanted, requests, root, findings);
  for (tools::Finding& finding : check_tree(root, options)) {
    const bool is_explained =
        finding.code == findings::kMissing.code && explained.count(finding.file) != 0;
    if (!is_explained) findings.push_back(std::move(finding));
  }
  return findings;
}

}  // namespace publish
