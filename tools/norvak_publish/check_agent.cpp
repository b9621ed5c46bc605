#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <optional>

#include "agent_package_reader.h"
#include "check_areas.h"
#include "server_paths.h"
#include "utility/md5wrapper.h"
#include "version.h"

namespace publish {

namespace {

constexpr char kVersionForm[] =
    "Write one line of 7 to 63 bytes: six characters, then decimal numbers separated by single "
    "dots, such as abcdef3.1.10.";
constexpr char kRaiseVersion[] =
    "Publish under a version with as many numbers, one of which is greater: norvak_publish soft.";
/// More than any version has.
constexpr std::size_t kReadBytes = 4096;

/// The first line of a file, without its line feed.
std::string whole_first_line(const std::string& path) {
  std::array<char, kReadBytes> bytes{};
  std::ifstream file(path, std::ios::binary);
  (void)file.read(bytes.data(), bytes.size());
  const std::string text(bytes.data(), static_cast<std::size_t>(file.gcount()));
  return text.substr(0, text.find('\n'));
}

bool is_control(char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }

bool is_digits(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool fits_int(const std::string& digits) {
  int number = 0;
  return std::from_chars(digits.data(), digits.data() + digits.size(), number).ec == std::errc();
}

string_list fields_of(const std::string& text) {
  string_list fields;
  version::split(text.substr(version::kPrefixBytes), ".", fields);
  return fields;
}

/// Checks the form of the version file.
class VersionCheck {
 public:
  VersionCheck(const TreeReader& tree, Findings& findings) : tree_(tree), findings_(findings) {}

  /// @return the version as hosts read it; nothing if they do not get as far as comparing it
  std::optional<std::string> check() {
    const std::string path = tree_.on_disk(server_paths::kAgentVersion);
    if (!version::is_version_file(path)) {
      add(findings::kVersionLines,
          "Not exactly one line has text. Hosts take the file for an error page and do not "
          "update.");
      return std::nullopt;
    }
    const std::string line = whole_first_line(path);
    if (line.size() > version::kMaxBytes) {
      add(findings::kVersionLength,
          "Hosts read only the first 63 bytes of this line, so that they compare and record "
          "another version.");
    } else if (line.size() < version::kPrefixBytes) {
      add(findings::kVersionLength,
          "The first line has fewer than six characters, which aborts the updater on every host.");
      return std::nullopt;
    } else if (line.size() == version::kPrefixBytes) {
      add(findings::kVersionLength,
          "Six characters are the prefix, which hosts skip. Without a number no host ever "
          "updates.");
    }
    check_text(line);
    return version::read_version_file(path);
  }

 private:
  void check_text(const std::string& line) {
    const std::string prefix = line.substr(0, version::kPrefixBytes);
    const std::string numbers = line.substr(version::kPrefixBytes);
    const string_list fields = fields_of(line);
    const bool has_control = std::any_of(prefix.begin(), prefix.end(), is_control);
    if (has_control || !std::all_of(fields.begin(), fields.end(), is_digits)) {
      add(findings::kVersionText,
          has_control
              ? "The prefix has a control character, which ends up in the hosts' config.xml."
              : "Not all fields are decimal numbers. Hosts compare only the digits that a "
                "field begins with, and record the version with what follows them.");
    } else if (!std::all_of(fields.begin(), fields.end(), fits_int)) {
      add(findings::kVersionNumber,
          "A number is greater than 2147483647. Hosts compare another number in its place.");
    }
    const bool has_outer_dot =
        !numbers.empty() && (numbers.front() == '.' || numbers.back() == '.');
    if (has_outer_dot || numbers.find("..") != std::string::npos) {
      add(findings::kVersionDots,
          "There are dots that separate nothing. Hosts ignore them, people may not.");
    }
  }

  void add(const FindingKind& kind, const std::string& text) {
    findings_.push_back(
        make_finding(kind, TreeReader::shown(server_paths::kAgentVersion), text, kVersionForm));
  }

  const TreeReader& tree_;
  Findings& findings_;
};

std::string package_path(const char* arch) { return server_paths::agent_package(arch); }

/// Whether a package differs from that of the tree published before. A package that is new does not
/// count: no host has another one.
bool packages_changed(const TreeReader& tree, const TreeReader& previous) {
  for (const char* arch : {server_paths::kX64, server_paths::kX86}) {
    const std::string path = package_path(arch);
    const auto digest = [&path](const TreeReader& of) {
      return utility::md5wrapper().getHashFromFile(of.on_disk(path));
    };
    if (previous.exists(path) && digest(tree) != digest(previous)) return true;
  }
  return false;
}

void check_order(const TreeReader& tree, const CheckOptions& options, const std::string& offered,
                 Findings& findings) {
  const std::string& before = options.previous_version;
  if (before.size() < version::kPrefixBytes) return;  // no host has it: it aborts the updater
  const auto add = [&](const FindingKind& kind, const std::string& text) {
    findings.push_back(
        make_finding(kind, TreeReader::shown(server_paths::kAgentVersion), text, kRaiseVersion));
  };
  if (version::is_newer(offered, before)) {
    if (fields_of(offered).size() != fields_of(before).size()) {
      add(findings::kVersionFieldCount,
          "The version has more or fewer numbers than " + before +
              ", which was published before. Hosts compare only as many as both have.");
    }
    return;
  }
  if (version::is_newer(before, offered)) {
    add(findings::kVersionOrder, "The version is lower than " + before +
                                     ", which was published before. Hosts that have that one never "
                                     "update.");
  } else if (offered != before) {
    add(findings::kVersionOrder, "To hosts, the version equals " + before +
                                     ", which was published before: they do not update.");
  } else if (!options.previous_root.empty() &&
             packages_changed(tree, TreeReader(options.previous_root.string()))) {
    add(findings::kVersionOrder,
        "A package changed, but the version did not: hosts that have this version keep the old "
        "package.");
  }
}

void check_version(const TreeReader& tree, const CheckOptions& options, Findings& findings) {
  const bool has_package = tree.exists(package_path(server_paths::kX64)) ||
                           tree.exists(package_path(server_paths::kX86));
  const std::string path = server_paths::kAgentVersion;
  if (!tree.exists(path) && !has_package) return;  // this server publishes no agent software
  if (!tree.require_file(path, "Automatic updates of the agent fail on every host.", findings)) {
    return;
  }
  const std::optional<std::string> offered = VersionCheck(tree, findings).check();
  if (offered) check_order(tree, options, *offered, findings);
}

/// The version that hosts read in the version file; nothing if its form is wrong.
std::optional<std::string> offered_version(const TreeReader& tree) {
  const std::string path = tree.on_disk(server_paths::kAgentVersion);
  const std::size_t bytes = whole_first_line(path).size();
  const bool has_length = bytes > version::kPrefixBytes && bytes <= version::kMaxBytes;
  return has_length && version::is_version_file(path) ? version::read_version_file(path)
                                                      : std::nullopt;
}

void check_package_version(const TreeReader& tree, const AgentPackage& package,
                           const std::string& file, Findings& findings) {
  if (!package.version) {
    findings.push_back(make_finding(findings::kPackageVersionUnknown, file,
                                    "This package was not made by norvak_publish package, so that "
                                    "the version that it installs is not known.",
                                    "Make sure that it is the one in the version file."));
    return;
  }
  const std::optional<std::string> offered = offered_version(tree);
  if (!offered || *offered == *package.version) return;
  findings.push_back(make_finding(findings::kPackageVersion, file,
                                  "The package installs version " + *package.version +
                                      ", and the version file offers " + *offered +
                                      ". Hosts record a version that they do not have.",
                                  "Publish the package of that version: norvak_publish soft."));
}

void check_package(const TreeReader& tree, const char* arch, Findings& findings) {
  const std::string path = package_path(arch);
  if (!tree.exists(path) && !tree.exists(server_paths::kAgentVersion)) return;
  if (!tree.require_file(
          path,
          "Hosts of this processor family stop their agent on each run and unpack an error page.",
          findings)) {
    return;
  }
  const std::string file = TreeReader::shown(path);
  const auto add = [&](const FindingKind& kind, const std::string& text, const std::string& fix) {
    findings.push_back(make_finding(kind, file, text, fix));
  };
  const std::string rebuild = "Build the package again: norvak_publish package.";
  const AgentPackage package = read_agent_package(tree.on_disk(path));
  if (!package.damage.empty()) {
    add(findings::kPackageDamaged,
        "tar cannot unpack this package (" + package.damage +
            "). Hosts stop their agent on each run and install nothing.",
        rebuild);
    return;
  }
  if (!package.has_end) {
    add(findings::kPackageDamaged,
        "The end of the archive is missing: the package was cut. Hosts install what is left of it "
        "and take that for a success.",
        rebuild);
  }
  if (!package.has_script) {
    add(findings::kPackageScript,
        "There is no file \"update\" at the top of the package. Hosts stop their agent on each run "
        "and install nothing.",
        rebuild);
  } else if (package.script_has_carriage_return) {
    add(findings::kPackageScript,
        "The first line of the script \"update\" ends with a carriage return, so that no "
        "interpreter is found. Hosts stop their agent on each run and install nothing.",
        rebuild);
  }
  for (const std::string& member : package.outside) {
    add(findings::kPackagePath,
        "A path leads out of the package: " + member +
            ". Unpacking it fails or writes to other places of the host.",
        rebuild);
  }
  for (const AgentPackage::Config& config : package.configs) {
    if (config.is_readable && config.missing_settings.empty()) continue;
    std::string missing;
    for (const std::string& name : config.missing_settings) missing += " " + name;
    add(findings::kPackageConfig,
        config.is_readable ? config.member + " lacks settings that the updater reads:" + missing +
                                 ". Where it replaces a host's configuration, later updates abort "
                                 "or find no server."
                           : config.member +
                                 " is not well-formed. Where it replaces a host's configuration, "
                                 "updates end there.",
        "Complete it, or leave it out of the package: the hosts keep theirs.");
  }
  if (package.has_script) check_package_version(tree, package, file, findings);
}

}  // namespace

void add_agent_tasks(const TreeReader& tree, const CheckOptions& options,
                     std::vector<CheckTask>& tasks) {
  tasks.emplace_back([&](Findings& findings) { check_version(tree, options, findings); });
  for (const char* arch : {server_paths::kX64, server_paths::kX86}) {
    tasks.emplace_back([&tree, arch](Findings& findings) { check_package(tree, arch, findings); });
  }
}

}  // namespace publish
