#include "preview.h"

#include <curl/curl.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "agent_files.h"
#include "conditions.h"
#include "findings.h"
#include "host_identity.h"
#include "probe.h"
#include "published_digest.h"
#include "server_paths.h"
#include "traces.h"
#include "update_nginx.h"
#include "update_soft.h"
#include "utility/cstr.h"
#include "utility/file.h"
#include "utility/md5wrapper.h"
#include "version.h"
#include "xml/config.h"

namespace host {

namespace {

using published_digest::ModuleState;

constexpr long kHttpOk = 200;

std::string first_line(const std::string& path) {
  constexpr int kLimit = static_cast<int>(published_digest::kMaxLineBytes) + 1;
  std::string line = utility::read_first_line(path, kLimit).value_or("");
  utility::remove_line_feed(line);
  return line;
}

/// Whether @a text has the form of a digest.
bool is_digest(const std::string& text) {
  constexpr std::size_t kDigits = 32;
  return text.size() == kDigits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string digest_of(const std::string& path) {
  return utility::exists(path) ? utility::md5wrapper().getHashFromFile(path) : "";
}

class Previewer {
 public:
  Previewer(const HostFacts& facts, const Settings& settings, const PreviewOptions& options)
      : facts_(facts), settings_(settings), options_(options), conditions_(facts, findings_) {}

  Preview run() {
    for (const UpdateType type : options_.types) {
      TypePreview preview;
      preview.type = type;
      preview.leftovers = leftovers(facts_.install_dir, type);
      can_download_ = conditions_.check_host(type);
      if (!settings_.readable) {
        findings_.error("config-unreadable", facts_.install_dir + agent_files::kConfig,
                        "the configuration is missing, cannot be read, or is malformed",
                        "restore it");
      }
      decide(preview);
      preview_.types.push_back(std::move(preview));
    }
    preview_.findings = findings_.all();
    return std::move(preview_);
  }

 private:
  void decide(TypePreview& preview) {
    switch (preview.type) {
      case UpdateType::kSoft:
        return preview_soft(preview);
      case UpdateType::kKernel:
        return preview_kernel(preview);
      case UpdateType::kNginx:
        return preview_nginx(preview);
      case UpdateType::kRules:
        return preview_rules(preview);
    }
  }

  static void set(TypePreview& preview, Outcome outcome, const std::string& reason) {
    preview.outcome = outcome;
    preview.reason = reason;
  }

  [[nodiscard]] std::string below(const char* suffix) const { return facts_.install_dir + suffix; }

  void preview_soft(TypePreview& preview) {
    if (!settings_.readable) return set(preview, Outcome::kFailed, "config.xml cannot be read");
    const std::string method = settings_.value(config::kUpdateType);
    if (utility::CStr::to_int(method.c_str()) == CUpdateSoftImpl::kManualUpdating) {
      return set(preview, Outcome::kRefused, "automatic updates are disabled on this host");
    }
    conditions_.check_machine(UpdateType::kSoft);
    const std::string server = settings_.value(config::kUpdateHost);
    if (!conditions_.check_address(config::kUpdateHost, server)) {
      return set(preview, Outcome::kFailed, "update_host is not set");
    }
    const std::optional<Reply> reply = fetch(preview, server + server_paths::kAgentVersion);
    if (!reply) return;
    if (!version::is_version_file(reply->path())) {
      findings_.error(
          "version-file-unusable", reply->url,
          "the version file must have exactly one line that is not empty" + described(*reply),
          "publish one version line");
      return set(preview, Outcome::kFailed, "the server's version file is unusable");
    }
    Part part = {"agent", settings_.value(config::kVersion),
                 version::read_version_file(reply->path()).value_or(""), Outcome::kUnknown};
    compare_versions(preview, part, *reply);
    if (preview.outcome == Outcome::kUpdated) {
      check_installation(preview, server + server_paths::agent_package(facts_.package_arch));
    }
    part.outcome = preview.outcome;
    preview.parts.push_back(part);
  }

  void compare_versions(TypePreview& preview, const Part& part, const Reply& reply) {
    try {
      if (version::is_newer(part.offered, part.installed)) {
        set(preview, Outcome::kUpdated, "the server offers a newer version");
      } else {
        set(preview, Outcome::kNothingToDo, "the installed version is current");
      }
    } catch (const std::out_of_range&) {
      const bool offered = part.offered.size() < version::kPrefixBytes;
      findings_.error(offered ? "offered-version-too-short" : "installed-version-too-short",
                      offered ? reply.url : below(agent_files::kConfig),
                      "the version \"" + (offered ? part.offered : part.installed) +
                          "\" has fewer than six characters: the run is aborted and leaves its "
                          "work directory",
                      offered ? "publish a version with its prefix"
                              : "set version to that of the installed agent");
      set(preview, Outcome::kUnfinished, "a version of fewer than six characters aborts the run");
    }
  }

  /// Follows a soft run that has found a newer version.
  void check_installation(TypePreview& preview, const std::string& package) {
    const bool tools = conditions_.check_package_tools();
    if (!check_offer(package, "unpack")) {
      return set(preview, Outcome::kFailed, "the server has no agent package for this host");
    }
    if (!has_space_) return set(preview, Outcome::kFailed, "there is not enough space");
    if (conditions_.check_pid_file() == Conditions::Victim::kRun) {
      return set(preview, Outcome::kUnfinished, "the run would kill itself");
    }
    if (!tools) set(preview, Outcome::kFailed, "the agent package could not be unpacked");
  }

  void preview_kernel(TypePreview& preview) {
    conditions_.check_machine(UpdateType::kKernel);
    conditions_.check_record();
    const std::string server = settings_.value(config::kKernelUpdateHost);
    if ((settings_.readable && !conditions_.check_address(config::kKernelUpdateHost, server)) ||
        server.empty()) {
      return set(preview, Outcome::kNothingToDo,
                 "kernel_update_host cannot be read: the run does nothing, and succeeds");
    }
    set(preview, Outcome::kNothingToDo, "the installed modules are current");
    for (const char* const name : agent_files::kModules) {
      if (preview.outcome != Outcome::kNothingToDo && preview.outcome != Outcome::kUpdated) {
        preview.parts.push_back({name,
                                 digest_of(agent_files::module_path(facts_.install_dir, name)), "",
                                 Outcome::kUnknown});
        continue;
      }
      preview_module(preview, server, name);
    }
  }

  void preview_module(TypePreview& preview, const std::string& server, const char* name) {
    const std::string installed = agent_files::module_path(facts_.install_dir, name);
    Part part = {name, digest_of(installed), "", Outcome::kFailed};
    const std::string directory =
        server + server_paths::module_directory(
                     host_identity::kernel_distribution(facts_.family, facts_.flavour),
                     facts_.module_arch, facts_.kernel_version, name);
    const std::optional<Reply> reply = fetch(preview, server_paths::module_digest_list(directory));
    if (!reply) {
      part.outcome = preview.outcome;
    } else {
      part.offered = first_line(reply->path());
      const ModuleState state = published_digest::compare_module(reply->path(), installed);
      if (state == ModuleState::kCurrent) {
        part.outcome = Outcome::kNothingToDo;
      } else if (state == ModuleState::kDiffers &&
                 can_verify(*reply, part, server_paths::module_file(directory, name))) {
        part.outcome = Outcome::kUpdated;
        set(preview, Outcome::kUpdated, "the server offers other modules");
      } else {
        if (state != ModuleState::kDiffers) {
          findings_.error("digest-list-unusable", reply->url,
                          "the digest list must have exactly one line" + described(*reply),
                          "publish a build for this kernel");
        }
        set(preview, Outcome::kFailed, std::string(name) + " cannot be updated");
      }
    }
    preview.parts.push_back(part);
  }

  /// Whether @a digest, from @a list, has the form of a digest. Without it, @a files are refused.
  [[nodiscard]] bool check_digest(const Reply& list, const std::string& digest,
                                  const std::string& files) {
    if (is_digest(digest)) return true;
    findings_.error("digest-unusable", list.url,
                    "the digest list has no digest in lower-case hexadecimal digits, so " + files +
                        " would be refused" + described(list),
                    "publish the digest as md5sum prints it, without the file name");
    return false;
  }

  /// Whether a module that is downloaded for @a part would be installed.
  [[nodiscard]] bool can_verify(const Reply& list, const Part& part, const std::string& url) {
    std::string digest = part.offered;
    utility::CStr::trim(digest);
    if (!check_digest(list, digest, "the module")) return false;
    if (digest != part.offered) {
      findings_.warning("digest-with-blanks", list.url,
                        "white space around the digest: the module is downloaded by every run",
                        "publish the digest and one line feed");
    }
    return check_offer(url, "verify") && has_space_;
  }

  void preview_rules(TypePreview& preview) {
    for (const char* const module : {agent_files::kQuorinModule, agent_files::kTesselModule}) {
      const std::string path = agent_files::module_path(facts_.install_dir, module);
      if (utility::exists(path)) continue;
      findings_.warning("engine-module-missing", path,
                        "without both engine modules a run takes the rules for current",
                        "run the update of the type kernel first");
      return set(preview, Outcome::kNothingToDo, "an engine module is not installed");
    }
    const std::string record = below(agent_files::kCurrentRulesDigest);
    const std::optional<std::string> current = published_digest::current_rules(record);
    if (!current) {
      findings_.error("rules-digest-unreadable", record,
                      "the digest of the installed rules cannot be read: a run takes them for "
                      "current",
                      "restore the file, or remove it");
      return set(preview, Outcome::kNothingToDo, "the installed digest cannot be read");
    }
    const std::string server = settings_.value(config::kKernelUpdateHost);
    if (settings_.readable) (void)conditions_.check_address(config::kKernelUpdateHost, server);
    const std::optional<Reply> reply = fetch(preview, server + server_paths::kRulesDigestList);
    if (!reply) return;
    Part part = {"rules", *current, first_line(reply->path()), Outcome::kNothingToDo};
    if (published_digest::announces_new_rules(reply->path(), *current)) {
      decide_new_rules(preview, part, *reply, server + server_paths::kRules);
    } else {
      decide_current_rules(preview, *reply);
    }
    part.outcome = preview.outcome;
    preview.parts.push_back(part);
  }

  void decide_new_rules(TypePreview& preview, const Part& part, const Reply& list,
                        const std::string& url) {
    conditions_.check_target(agent_files::kInstalledRules, "template-missing",
                             "template-not-writable");
    if (!check_digest(list, part.offered, "the rules")) {
      return set(preview, Outcome::kFailed, "the published digest is unusable");
    }
    if (!check_offer(url, "verify")) {
      return set(preview, Outcome::kFailed, "the server has no rule file");
    }
    if (!has_space_) return set(preview, Outcome::kFailed, "there is not enough space");
    if (conditions_.check_pid_file() == Conditions::Victim::kRun) {
      return set(preview, Outcome::kUnfinished, "the run would kill itself");
    }
    findings_.note("agent-stays-stopped", below(agent_files::kPid),
                   "a run that installs rules stops the agent and does not start it again",
                   "start the agent after the run");
    set(preview, Outcome::kUpdated, "the server announces other rules");
  }

  void decide_current_rules(TypePreview& preview, const Reply& list) {
    if (published_digest::is_list(list.path())) {
      return set(preview, Outcome::kNothingToDo, "the installed rules are current");
    }
    findings_.error(
        "digest-list-unusable", list.url,
        "the digest list must have exactly one line: a run takes the rules for current" +
            described(list),
        "publish the digest and one line feed");
    set(preview, Outcome::kNothingToDo, "the published digest is unusable");
  }

  void preview_nginx(TypePreview& preview) {
    if (!settings_.readable) return set(preview, Outcome::kFailed, "config.xml cannot be read");
    const std::string server = settings_.value(config::kNginxUpdateHost);
    if (!conditions_.check_address(config::kNginxUpdateHost, server)) {
      return set(preview, Outcome::kFailed, "nginx_update_host is not set");
    }
    const std::string arch = CUpdateNginxImpl::get_nginx_arch(options_.nginx_word_size.c_str());
    const std::string directory =
        server + server_paths::nginx_directory(arch, options_.nginx_version);
    const std::optional<Reply> reply =
        fetch(preview, server_paths::nginx_identification(directory));
    if (!reply) return;
    const std::string installed = below(agent_files::kInstalledNginxMd5);
    Part part = {"nginx", first_line(installed), first_line(reply->path()), Outcome::kUnknown};
    if (published_digest::same_nginx_build(installed, reply->path())) {
      set(preview, Outcome::kNothingToDo, "the installed build is the published one");
    } else {
      conditions_.check_target(agent_files::kInstalledNginx, "nginx-bin-missing",
                               "nginx-bin-not-writable");
      if (!check_offer(server_paths::nginx_program(directory), "accept")) {
        set(preview, Outcome::kFailed, "the server has no program for this build");
      } else if (!has_space_) {
        set(preview, Outcome::kFailed, "there is not enough space");
      } else {
        findings_.note("nginx-not-executable", below(agent_files::kInstalledNginx),
                       "a run installs the program without permission to execute it",
                       "chmod 755 after the run");
        set(preview, Outcome::kUpdated, "the server has another build");
      }
    }
    part.outcome = preview.outcome;
    preview.parts.push_back(part);
  }

  /// Makes a download that the run would begin with.
  /// @return nothing if the run would fail, or if that cannot be decided: @a preview is then set
  std::optional<Reply> fetch(TypePreview& preview, const std::string& url) {
    if (!can_download_) {
      set(preview, Outcome::kFailed, "nothing can be downloaded into the install directory");
      return std::nullopt;
    }
    Reply reply = download(url, options_.timeout);
    preview_.answers.push_back({url, reply.result, reply.http_status, reply.bytes});
    if (reply.too_large) {
      findings_.error(
          "reply-too-large", url,
          "the reply is longer than 1 MiB, which no version or digest is" + described(reply),
          "publish the right file");
      set(preview, Outcome::kUnknown, "the server's reply is too large");
      return std::nullopt;
    }
    if (reply.timed_out) {
      findings_.error(
          "server-stalls", url,
          "the server did not answer in time; the updater has no time limit and would keep waiting",
          "repair the server, and give the timer a time limit");
      set(preview, Outcome::kUnknown, "the server did not answer in time");
      return std::nullopt;
    }
    if (reply.result != CURLE_OK) {
      const bool refused =
          reply.result == CURLE_URL_MALFORMAT || reply.result == CURLE_UNSUPPORTED_PROTOCOL;
      findings_.error(
          refused ? "address-unusable" : "download-failed", url,
          std::string(refused ? "libcurl cannot use the address: " : "the download failed: ") +
              curl_easy_strerror(static_cast<CURLcode>(reply.result)) + " (libcurl " +
              std::to_string(reply.result) + ")",
          refused ? "correct the setting" : "check the setting and the server");
      set(preview, Outcome::kFailed, "a transfer failed");
      return std::nullopt;
    }
    if (reply.http_status != 0 && reply.http_status != kHttpOk) {
      findings_.error("http-error", url,
                      "the server answered with HTTP status " + std::to_string(reply.http_status) +
                          ": the updater takes the page for the file" + described(reply),
                      "publish the file, or correct the setting");
    }
    return reply;
  }

  /// What the reply begins with, for messages.
  static std::string described(const Reply& reply) {
    if (!reply.body) return "; the reply is empty";
    return "; the reply has " + std::to_string(reply.bytes) + " bytes and begins with \"" +
           first_line(reply.path()).substr(0, 60) + "\"";
  }

  /// Whether the server has the file that a run would download next. Sets has_space_.
  [[nodiscard]] bool check_offer(const std::string& url, const char* step) {
    const Head head = request_head(url, options_.timeout);
    has_space_ = true;
    const bool no_head = head.http_status == 405 || head.http_status == 501;
    if (head.http_status >= 300 && !no_head) {
      findings_.error("http-error", url,
                      "the server answers with HTTP status " + std::to_string(head.http_status) +
                          ": the updater takes the page for the file and fails to " + step + " it",
                      "publish the file");
      return false;
    }
    has_space_ = conditions_.check_space(url, no_head ? std::nullopt : head.bytes);
    return true;
  }

  const HostFacts& facts_;
  const Settings& settings_;
  const PreviewOptions& options_;
  Findings findings_;
  Conditions conditions_;
  Preview preview_;
  bool can_download_ = true;
  bool has_space_ = true;
};

}  // namespace

Preview preview_updates(const HostFacts& facts, const Settings& settings,
                        const PreviewOptions& options) {
  return Previewer(facts, settings, options).run();
}

bool is_clean(const Preview& preview) {
  return std::none_of(preview.types.begin(), preview.types.end(),
                      [](const TypePreview& type) { return type.outcome == Outcome::kUnknown; }) &&
         std::none_of(preview.findings.begin(), preview.findings.end(),
                      [](const tools::Finding& finding) {
                        return finding.severity == tools::Severity::kError;
                      });
}

bool has_update(const Preview& preview) {
  return std::any_of(preview.types.begin(), preview.types.end(),
                     [](const TypePreview& type) { return type.outcome == Outcome::kUpdated; });
}

}  // namespace host
