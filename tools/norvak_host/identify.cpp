#include "identify.h"

#include <nlohmann/json.hpp>
#include <ostream>

#include "agent_files.h"
#include "common/command_line.h"
#include "host_identity.h"
#include "server_paths.h"
#include "table.h"
#include "utility/unix_helper.h"
#include "xml/config.h"

namespace host {

namespace {

using tools::Color;
using tools::printable;

constexpr std::size_t kSettingWidth = 20;

constexpr char kAnyArch[] = "{arch}";
constexpr char kAnyVersion[] = "{version}";

std::string or_none(const std::string& text) { return text.empty() ? "none" : text; }

}  // namespace

std::string Settings::value(const char* name) const {
  const auto found = values.find(name);
  return found == values.end() ? "" : found->second.value_or("");
}

Settings read_settings(const std::string& install_dir) {
  const std::string path = install_dir + agent_files::kConfig;
  const std::string not_set(1, '\0');  // no setting has this value: XML has no NUL
  Settings settings;
  for (const char* const name : config::kSettingNames) {
    std::string value = not_set;
    settings.readable = config::get_config_var(path, name, value) == 0;
    settings.values[name] = value == not_set ? std::nullopt : std::make_optional(value);
  }
  return settings;
}

std::vector<Request> all_requests(const HostFacts& facts, const Settings& settings) {
  std::vector<Request> requests;
  const std::string agent = settings.value(config::kUpdateHost);
  if (!agent.empty()) {
    requests.push_back({UpdateType::kSoft, agent + server_paths::kAgentVersion});
    requests.push_back(
        {UpdateType::kSoft, agent + server_paths::agent_package(facts.package_arch)});
  }
  const std::string kernel = settings.value(config::kKernelUpdateHost);
  if (!kernel.empty()) {
    for (const char* const module : agent_files::kModules) {
      const std::string directory =
          kernel + server_paths::module_directory(
                       host_identity::kernel_distribution(facts.family, facts.flavour),
                       facts.module_arch, facts.kernel_version, module);
      requests.push_back({UpdateType::kKernel, server_paths::module_digest_list(directory)});
      requests.push_back({UpdateType::kKernel, server_paths::module_file(directory, module)});
    }
  }
  const std::string nginx = settings.value(config::kNginxUpdateHost);
  if (!nginx.empty()) {
    const std::string directory = nginx + server_paths::nginx_directory(kAnyArch, kAnyVersion);
    requests.push_back({UpdateType::kNginx, server_paths::nginx_identification(directory)});
    requests.push_back({UpdateType::kNginx, server_paths::nginx_program(directory)});
  }
  // A rule update requests these even if its setting is missing.
  requests.push_back({UpdateType::kRules, kernel + server_paths::kRulesDigestList});
  requests.push_back({UpdateType::kRules, kernel + server_paths::kRules});
  return requests;
}

void print_identity(std::ostream& out, const tools::Painter& paint, const HostFacts& facts,
                    const Settings& settings) {
  const auto heading = [&](const char* text) { out << paint(Color::kBold, text) << "\n"; };
  heading("Host");
  out << "  install directory   " << printable(facts.install_dir)
      << (facts.install_dir_is_default
              ? " (default)"
              : std::string(" (from ") + utility::CUnixHelper::kInstallPathFile + ")")
      << "\n  distribution        " << facts.family
      << " (marker file: " << printable(or_none(facts.family_marker)) << ")\n"
      << "  machine             " << printable(facts.machine)
      << " (agent package: " << facts.package_arch << ", kernel modules: " << facts.module_arch
      << ")\n"
      << "  kernel              " << printable(facts.kernel_release)
      << " (version: " << printable(facts.kernel_version) << ", flavour: " << or_none(facts.flavour)
      << ")\n";
  heading("Settings");
  if (!settings.readable) {
    out << "  " << printable(facts.install_dir) << agent_files::kConfig << " cannot be read\n";
  }
  for (const char* const name : config::kSettingNames) {
    const std::optional<std::string>& value = settings.values.at(name);
    out << "  " << padded(name, kSettingWidth) << (value ? printable(*value) : "(not set)") << "\n";
  }
  heading("Requests");
  for (const Request& request : all_requests(facts, settings)) {
    out << "  " << padded(type_name(request.type), kTypeWidth) << printable(request.url) << "\n";
  }
}

void print_identity_json(std::ostream& out, const HostFacts& facts, const Settings& settings) {
  nlohmann::json json = host_json(facts);
  json["install_dir_source"] = facts.install_dir_is_default ? "default" : "file";
  json["family_marker"] = facts.family_marker;
  json["config_readable"] = settings.readable;
  json["settings"] = nlohmann::json::object();
  for (const auto& [name, value] : settings.values) {
    json["settings"][name] = value ? nlohmann::json(*value) : nlohmann::json();
  }
  json["requests"] = nlohmann::json::array();
  for (const Request& request : all_requests(facts, settings)) {
    json["requests"].push_back({{"type", type_name(request.type)}, {"url", request.url}});
  }
  tools::print_json(out, json);
}

}  // namespace host
