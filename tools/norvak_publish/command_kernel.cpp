#include <algorithm>
#include <map>

#include "agent_files.h"
#include "commands.h"
#include "elf_file.h"
#include "host_identity.h"
#include "server_paths.h"
#include "utility/md5wrapper.h"

namespace publish {

namespace fs = std::filesystem;

namespace {

/// A module and where hosts look for it.
struct Module {
  fs::path source;
  std::string directory;
  std::string name;
  std::string kernel_release;  ///< the one it was built for; may be empty
};

const char* arch_of(const ElfFile& elf, const fs::path& path) {
  switch (elf.processor) {
    case Processor::kX64:
      return server_paths::kX64;
    case Processor::kX86:
      return server_paths::kX86;
    default:
      throw Failure("built for neither x86-64 nor x86: " + path.string());
  }
}

/// The name of the module in the file @a path, from the file's name.
std::string module_name(const fs::path& path) {
  std::string name = path.stem();
  const bool known = std::find(std::begin(agent_files::kModules), std::end(agent_files::kModules),
                               name) != std::end(agent_files::kModules);
  if (!known || path.extension() != agent_files::kModuleSuffix) {
    throw Failure("not named like a kernel module of the agent: " + path.string());
  }
  return name;
}

Module locate(const fs::path& path, const KernelCommand& command) {
  const std::string name = module_name(path);
  const std::optional<ElfFile> elf = read_elf(path);
  if (!elf) throw Failure("cannot be read, or is not a complete ELF file: " + path.string());
  const std::string release = command.kernel_release.value_or(elf->kernel_release);
  if (release.empty()) {
    throw Failure("does not say for which kernel it was built (name it with --kernel RELEASE): " +
                  path.string());
  }
  host_identity::KernelInfo kernel;
  host_identity::describe_kernel(host_identity::os_code(command.distribution), release, kernel);
  return {path,
          server_paths::module_directory(
              host_identity::kernel_distribution(command.distribution, kernel.flavour),
              arch_of(*elf, path), kernel.version, name),
          name, elf->kernel_release};
}

/// Two different kernels can share a directory: the module of one would replace the other's.
void refuse_to_replace(const Draft& draft, const Module& module) {
  const std::string file = server_paths::module_file(module.directory, module.name);
  if (!fs::exists(draft.file(file))) return;
  const std::optional<ElfFile> there = read_elf(draft.file(file));
  if (there && there->kernel_release != module.kernel_release) {
    throw Failure(file.substr(1) + " was built for " + there->kernel_release + ", and " +
                  module.source.string() + " for " + module.kernel_release +
                  ": hosts with either kernel ask for this file (--replace replaces it)");
  }
}

}  // namespace

ExitStatus run_kernel(const PublishOptions& options, const KernelCommand& command) {
  std::map<std::string, Module> modules;  // by directory
  for (const fs::path& path : command.modules) {
    const Module module = locate(path, command);
    const auto [other, is_new] = modules.emplace(module.directory, module);
    if (!is_new) {
      throw Failure(path.string() + " and " + other->second.source.string() + " both belong in " +
                    module.directory.substr(1) + ": publish one of them");
    }
  }
  return publish_changes(options, [&](Draft& draft) {
    for (const auto& [directory, module] : modules) {
      if (!command.replace) refuse_to_replace(draft, module);
      draft.put_copy(server_paths::module_file(directory, module.name), module.source);
    }
    for (const auto& [directory, module] : modules) {
      const fs::path file = draft.file(server_paths::module_file(directory, module.name));
      draft.put_text(server_paths::module_digest_list(directory),
                     utility::md5wrapper().getHashFromFile(file) + "\n");
    }
  });
}

}  // namespace publish
