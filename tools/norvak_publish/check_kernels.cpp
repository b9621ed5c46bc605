#include <algorithm>
#include <iterator>

#include "agent_files.h"
#include "check_areas.h"
#include "elf_file.h"
#include "host_identity.h"
#include "published_digest.h"
#include "server_paths.h"

namespace publish {

namespace {

constexpr int kBaseNumbers = 3;

/// A directory of kernels below /kernels/, such as "centos-xen".
struct Distribution {
  std::string directory;
  int os_code = 0;
  std::string flavour;
};

/// Where the modules of one kernel are.
struct Kernel {
  Distribution distribution;
  std::string arch;
  std::string version;
};

host_identity::KernelInfo describe(int os_code, const std::string& release) {
  host_identity::KernelInfo info;
  host_identity::describe_kernel(os_code, release, info);
  return info;
}

/// @return whether any host's distribution and flavour have the directory @a name
bool parse_distribution(const std::string& name, Distribution& distribution) {
  for (const char* family :
       {host_identity::kCentos, host_identity::kSuse, host_identity::kUbuntu}) {
    const std::string dash = std::string(family) + "-";
    if (name != family && name.rfind(dash, 0) != 0) continue;
    const std::string flavour = name == family ? "" : name.substr(dash.size());
    const int code = host_identity::os_code(family);
    distribution = {name, code, flavour};
    // Any release that contains the flavour will do.
    return describe(code, "1.2.3-4-" + flavour).flavour == flavour;
  }
  return false;
}

/// Whether some host can request the directory @a version: a kernel release of this text, with or
/// without the flavour after it, leads to this version and this flavour.
bool is_requested_version(const Distribution& distribution, const std::string& version) {
  const auto leads_here = [&](const std::string& release) {
    const host_identity::KernelInfo info = describe(distribution.os_code, release);
    return info.version == version && info.flavour == distribution.flavour;
  };
  return leads_here(version) || leads_here(version + "-" + distribution.flavour);
}

/// The upstream version that a distribution's kernel is based on: "2.6.32" for "2.6.32-431".
std::string base_version(const std::string& version) {
  int numbers = 1;
  std::size_t end = 0;
  for (; end < version.size(); ++end) {
    const bool is_digit = version[end] >= '0' && version[end] <= '9';
    if (!is_digit && (version[end] != '.' || ++numbers > kBaseNumbers)) break;
  }
  return version.substr(0, end);
}

void add_directory(const std::string& path, const std::string& why, Findings& findings) {
  findings.push_back(make_finding(
      findings::kKernelDirectory, TreeReader::shown(path),
      "No host requests this name: " + why + " Hosts for which it was meant find nothing.",
      "Publish the modules with norvak_publish kernel, which knows the name, and remove this."));
}

/// Compares the kernel that a module was built for with the directory that it is in.
void check_release(const Kernel& kernel, const std::string& file, const std::string& release,
                   Findings& findings) {
  const host_identity::KernelInfo built_for = describe(kernel.distribution.os_code, release);
  if (built_for.flavour == kernel.distribution.flavour && built_for.version == kernel.version) {
    return;
  }
  const std::string fix =
      "Publish the module that was built for this kernel: norvak_publish kernel.";
  if (base_version(built_for.version) == base_version(kernel.version)) {
    findings.push_back(make_finding(findings::kModuleBuild, file,
                                    "The module was built for " + release +
                                        ", another build or flavour of this directory's kernel. "
                                        "Hosts can load it only if their distribution keeps the "
                                        "interface for modules stable.",
                                    fix));
  } else {
    findings.push_back(make_finding(findings::kModuleKernel, file,
                                    "The module was built for " + release +
                                        ", which is not the kernel of this directory. Hosts "
                                        "install it, and their kernel refuses to load it.",
                                    fix));
  }
}

void check_module_file(const TreeReader& tree, const Kernel& kernel, const std::string& path,
                       Findings& findings) {
  const std::string file = TreeReader::shown(path);
  const auto add = [&](const std::string& what) {
    findings.push_back(
        make_finding(findings::kModuleElf, file,
                     what + " Hosts install it in place of a working module, and cannot load it.",
                     "Publish the module as it was built, not compressed: norvak_publish kernel."));
  };
  const std::optional<ElfFile> elf = read_elf(tree.on_disk(path));
  if (!elf) {
    add("This is not a complete ELF file.");
    return;
  }
  const Processor wanted = kernel.arch == server_paths::kX64 ? Processor::kX64 : Processor::kX86;
  if (elf->processor != wanted) {
    add("The module was built for another processor than that of the directory.");
  } else if (elf->kernel_release.empty()) {
    add("The file does not say for which kernel it was built (vermagic), so it is not a module.");
  } else {
    check_release(kernel, file, elf->kernel_release, findings);
  }
}

void check_module(const TreeReader& tree, const Kernel& kernel, const std::string& name,
                  Findings& findings) {
  const std::string directory = server_paths::module_directory(kernel.distribution.directory,
                                                               kernel.arch, kernel.version, name);
  const std::string list = server_paths::module_digest_list(directory);
  const std::string module = server_paths::module_file(directory, name);
  constexpr char kWhy[] =
      "Hosts get an error page in its place. Their run fails, and one of the engine modules may be "
      "removed.";
  const bool has_list = tree.require_file(list, kWhy, findings);
  const bool has_module = tree.require_file(module, kWhy, findings);
  if (has_module) check_module_file(tree, kernel, module, findings);
  if (has_list && has_module &&
      published_digest::compare_module(tree.on_disk(list), tree.on_disk(module)) !=
          published_digest::ModuleState::kCurrent) {
    findings.push_back(explain_digest_list(tree, list, module));
  }
  if (!has_list && !has_module) return;  // the directory may be missing, too
  for (const std::string& entry : tree.list(directory, findings)) {
    const std::string path = TreeReader::join(directory, entry);
    if (path != list && path != module) TreeReader::add_unrequested(path, findings);
  }
}

void check_kernel(const TreeReader& tree, const Kernel& kernel, const std::string& directory,
                  Findings& findings) {
  for (const char* name : agent_files::kModules) check_module(tree, kernel, name, findings);
  for (const std::string& entry : tree.list(directory, findings)) {
    if (std::find(std::begin(agent_files::kModules), std::end(agent_files::kModules), entry) ==
        std::end(agent_files::kModules)) {
      TreeReader::add_unrequested(TreeReader::join(directory, entry), findings);
    }
  }
}

void add_version_tasks(const TreeReader& tree, const Distribution& distribution,
                       const std::string& arch, const std::string& directory,
                       std::vector<CheckTask>& tasks, Findings& findings) {
  for (const std::string& version : tree.list(directory, findings)) {
    const std::string path = TreeReader::join(directory, version);
    if (!is_requested_version(distribution, version)) {
      add_directory(path, "hosts of this distribution shorten a kernel's release in another way.",
                    findings);
      continue;
    }
    const Kernel kernel{distribution, arch, version};
    tasks.emplace_back(
        [&tree, kernel, path](Findings& found) { check_kernel(tree, kernel, path, found); });
  }
}

}  // namespace

void add_kernel_tasks(const TreeReader& tree, std::vector<CheckTask>& tasks, Findings& findings) {
  const std::string top = TreeReader::without_slash(server_paths::kKernels);
  if (!tree.exists(top)) return;
  for (const std::string& name : tree.list(top, findings)) {
    const std::string directory = TreeReader::join(top, name);
    Distribution distribution;
    if (!parse_distribution(name, distribution)) {
      add_directory(directory, "there is no such distribution or flavour.", findings);
      continue;
    }
    for (const std::string& arch : tree.list(directory, findings)) {
      const std::string path = TreeReader::join(directory, arch);
      if (arch != server_paths::kX64 && arch != server_paths::kX86) {
        add_directory(path, "there is no such processor family.", findings);
      } else {
        add_version_tasks(tree, distribution, arch, path, tasks, findings);
      }
    }
  }
}

}  // namespace publish
