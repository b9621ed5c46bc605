#include <map>

#include "check_areas.h"
#include "elf_file.h"
#include "published_digest.h"
#include "server_paths.h"
#include "utility/file.h"
#include "utility/md5wrapper.h"

namespace publish {

namespace {

/// How much of an identification line is read to see whether it is too long.
constexpr int kReadLimit = 1024;

void check_program(const TreeReader& tree, const std::string& arch, const std::string& path,
                   Findings& findings) {
  const std::optional<ElfFile> elf = read_elf(tree.on_disk(path));
  const Processor wanted = arch == server_paths::kX64 ? Processor::kX64 : Processor::kX86;
  if (elf && elf->processor == wanted) return;
  findings.push_back(make_finding(
      findings::kBuildElf, TreeReader::shown(path),
      elf ? "The program was built for another processor than that of the directory. Hosts install "
            "it and cannot run it."
          : "This is not a complete ELF file. Hosts refuse it, or install it and cannot run it.",
      "Publish the program for this processor family: norvak_publish nginx."));
}

void check_identification(const TreeReader& tree, const std::string& path, Findings& findings) {
  std::string line = utility::read_first_line(tree.on_disk(path), kReadLimit).value_or("");
  utility::remove_line_feed(line);
  if (line.empty()) {
    findings.push_back(make_finding(
        findings::kIdentificationEmpty, TreeReader::shown(path),
        "The identification line is empty. Hosts cannot tell that they have this build, and "
        "install it on each run.",
        "Write a line that differs from those of all other builds, such as the program's digest."));
  } else if (line.size() > published_digest::kMaxLineBytes) {
    findings.push_back(make_finding(findings::kIdentificationLong, TreeReader::shown(path),
                                    "Hosts compare only the first 127 bytes of this line, so that "
                                    "builds which differ in later ones are the same to them.",
                                    "Shorten it to 127 bytes."));
  }
}

/// A build with both of its files.
struct Build {
  std::string identification;
  std::string program;
};

/// Adds a finding for each build that a host of another build takes for its own.
void find_duplicates(const TreeReader& tree, const std::vector<Build>& builds, Findings& findings) {
  std::map<std::string, const Build*> seen;  // by what hosts read
  for (const Build& build : builds) {
    const std::string line =
        published_digest::nginx_identification(tree.on_disk(build.identification));
    const auto [first, is_new] = seen.try_emplace(line, &build);
    if (line.empty() || is_new) continue;
    const auto digest = [&tree](const Build* of) {
      return utility::md5wrapper().getHashFromFile(tree.on_disk(of->program));
    };
    if (digest(&build) == digest(first->second)) continue;
    findings.push_back(make_finding(
        findings::kIdentificationDuplicate, TreeReader::shown(build.identification),
        "The identification is that of another build, " +
            TreeReader::shown(first->second->program) +
            ". Hosts with one of them never install the other.",
        "Write a line that differs from those of all other builds, such as the program's digest."));
  }
}

void check_builds(const TreeReader& tree, const std::string& arch, const std::string& directory,
                  Findings& findings) {
  constexpr char kWhy[] = "Hosts that ask for this build get an error page in its place.";
  std::vector<Build> builds;
  for (const std::string& version : tree.list(directory, findings)) {
    const std::string path = server_paths::nginx_directory(arch, version);
    const Build build{server_paths::nginx_identification(path), server_paths::nginx_program(path)};
    const bool has_identification = tree.require_file(build.identification, kWhy, findings);
    const bool has_program = tree.require_file(build.program, kWhy, findings);
    if (has_identification) check_identification(tree, build.identification, findings);
    if (has_program) check_program(tree, arch, build.program, findings);
    if (has_identification && has_program) builds.push_back(build);
    for (const std::string& entry : tree.list(path, findings)) {
      const std::string file = TreeReader::join(path, entry);
      if (file != build.identification && file != build.program) {
        TreeReader::add_unrequested(file, findings);
      }
    }
  }
  find_duplicates(tree, builds, findings);
}

}  // namespace

void add_nginx_tasks(const TreeReader& tree, std::vector<CheckTask>& tasks, Findings& findings) {
  const std::string top = TreeReader::without_slash(server_paths::kNginxBuilds);
  if (!tree.exists(top)) return;
  for (const std::string& arch : tree.list(top, findings)) {
    const std::string directory = TreeReader::join(top, arch);
    if (arch != server_paths::kX64 && arch != server_paths::kX86) {
      TreeReader::add_unrequested(directory, findings);
      continue;
    }
    tasks.emplace_back(
        [&tree, arch, directory](Findings& found) { check_builds(tree, arch, directory, found); });
  }
}

}  // namespace publish
