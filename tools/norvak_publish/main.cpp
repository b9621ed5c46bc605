// norvak_publish: publishes updates on the fleet's update server.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>

#include "commands.h"
#include "common/command_line.h"
#include "host_identity.h"

namespace {

using publish::ExitStatus;
using publish::PublishOptions;

/// What the command line asks for. The callback of the chosen command sets `run`.
struct Invocation {
  PublishOptions options;
  publish::SoftCommand soft;
  publish::KernelCommand kernel;
  std::filesystem::path rules;
  publish::NginxCommand nginx;
  publish::PackageCommand package;
  publish::CheckCommand check;
  publish::CoverageCommand coverage;
  publish::RollbackCommand rollback{std::nullopt, std::chrono::minutes(15)};
  std::function<ExitStatus()> run;
};

CLI::App* add_command(CLI::App& app, const char* name, const char* description,
                      Invocation& invocation, std::function<ExitStatus()> run) {
  CLI::App* command = app.add_subcommand(name, description);
  command->fallthrough();
  command->footer("The common options of `norvak_publish --help` apply.");
  command->callback([&invocation, run = std::move(run)] { invocation.run = run; });
  return command;
}

CLI::App* add_tree_command(CLI::App& app, const char* name, const char* description,
                           Invocation& invocation, std::function<ExitStatus()> run) {
  CLI::App* command = add_command(app, name, description, invocation, std::move(run));
  command->add_option("TREE", invocation.options.tree, "The server tree")->required();
  return command;
}

void add_common_options(CLI::App& app, PublishOptions& options) {
  app.add_flag("--dry-run", options.dry_run, "Put the release together and check it, then stop");
  app.add_option_function<int>(
         "--wait", [&options](int seconds) { options.wait = std::chrono::seconds(seconds); },
         "Wait this long for another publisher to end (default: 0)")
      ->check(CLI::NonNegativeNumber)
      ->type_name("SECONDS");
  app.add_option("--keep", options.keep, "Keep at most N old releases")
      ->check(CLI::NonNegativeNumber)
      ->type_name("N")
      ->capture_default_str();
  app.add_flag("--quiet", options.quiet, "Print findings and failures only");
  app.add_flag("--in-place", options.in_place, "Change the files of a tree without releases");
  app.add_flag("--import", options.import,
               "First turn the files of a tree without releases into its first release");
  tools::add_color_option(app, options.color);
}

void add_soft(CLI::App& app, Invocation& invocation) {
  publish::SoftCommand& soft = invocation.soft;
  CLI::App* command = add_tree_command(app, "soft", "Publish the agent software", invocation,
                                       [&] { return run_soft(invocation.options, soft); });
  command->add_option("--version", soft.version, "The version that the packages install")
      ->required()
      ->type_name("TEXT");
  command->add_option("--x64", soft.package_x64, "The package for x86-64")
      ->required()
      ->type_name("PACKAGE");
  command->add_option("--x86", soft.package_x86, "The package for x86")
      ->required()
      ->type_name("PACKAGE");
}

void add_kernel(CLI::App& app, Invocation& invocation) {
  publish::KernelCommand& kernel = invocation.kernel;
  CLI::App* command = add_tree_command(app, "kernel", "Publish kernel modules", invocation,
                                       [&] { return run_kernel(invocation.options, kernel); });
  command
      ->add_option("--distribution", kernel.distribution,
                   "The distribution family of the hosts: centos, suse or ubuntu")
      ->required()
      ->check(CLI::IsMember({host_identity::kCentos, host_identity::kSuse, host_identity::kUbuntu}))
      ->type_name("NAME");
  command
      ->add_option("--kernel", kernel.kernel_release,
                   "The kernel of the hosts, as `uname -r` prints it there (default: the one that "
                   "each module was built for)")
      ->type_name("RELEASE");
  command->add_flag("--replace", kernel.replace,
                    "Replace modules that were built for another kernel, too");
  command->add_option("MODULE", kernel.modules, "Modules, named as on the server")->required();
}

void add_rules(CLI::App& app, Invocation& invocation) {
  CLI::App* command =
      add_tree_command(app, "rules", "Publish the protection rules", invocation,
                       [&] { return run_rules(invocation.options, invocation.rules); });
  command->add_option("FILE", invocation.rules, "The rule file")->required();
}

void add_nginx(CLI::App& app, Invocation& invocation) {
  publish::NginxCommand& nginx = invocation.nginx;
  CLI::App* command =
      add_tree_command(app, "nginx", "Publish a build of the web server program", invocation,
                       [&] { return run_nginx(invocation.options, nginx); });
  command->add_option("--version", nginx.version_dir, "The build's directory on the server")
      ->required()
      ->type_name("DIR");
  command->add_option("--word-size", nginx.word_size, "64 or 32")
      ->required()
      ->check(CLI::IsMember({64, 32}))
      ->type_name("BITS");
  command->add_option("PROGRAM", nginx.program, "The program")->required();
  command
      ->add_option("--identification", nginx.identification,
                   "The line by which hosts tell builds apart (default: the MD5 digest)")
      ->type_name("TEXT");
}

void add_package(CLI::App& app, Invocation& invocation) {
  publish::PackageCommand& package = invocation.package;
  CLI::App* command = add_command(app, "package", "Build an agent package", invocation,
                                  [&] { return run_package(invocation.options, package); });
  command->add_option("OUT", package.output, "The package to write")->required();
  command->add_option("--version", package.version, "The version that the package installs")
      ->required()
      ->type_name("TEXT");
  command->add_option("--payload", package.payload, "The files to install")
      ->required()
      ->type_name("DIR");
  command->add_option("--manifest", package.manifest, "What to do with each of them")
      ->required()
      ->type_name("FILE");
  command->add_flag("--replace-config", package.replace_config,
                    "Let the payload's config.xml replace that of the hosts");
}

void add_check(CLI::App& app, Invocation& invocation) {
  publish::CheckCommand& check = invocation.check;
  CLI::App* command = add_command(app, "check", "Find what would hurt hosts", invocation,
                                  [&] { return run_check(invocation.options, check); });
  command
      ->add_option("TREE", check.target,
                   "A server tree, or the address of a server as config.xml has it")
      ->required()
      ->type_name("TREE|URL");
  command->add_option("--previous", check.previous_version, "The agent version published before")
      ->type_name("VERSION");
  command->add_option("--fleet", check.fleet, "The hosts to serve, as for coverage")
      ->check(CLI::ExistingFile)
      ->type_name("FILE");
  command->add_flag("--strict", check.strict, "Let warnings count as errors");
  command->add_flag("--json", check.json, "Print the findings as JSON");
}

void add_coverage(CLI::App& app, Invocation& invocation) {
  publish::CoverageCommand& coverage = invocation.coverage;
  CLI::App* command =
      add_tree_command(app, "coverage", "Report which kernels of a fleet have modules", invocation,
                       [&] { return run_coverage(invocation.options, coverage); });
  command
      ->add_option(
          "--fleet", coverage.fleet,
          "A CSV file with the header distribution,machine,release,count, or the output of "
          "`norvak_host identify --json`, one host per line")
      ->required()
      ->check(CLI::ExistingFile)
      ->type_name("FILE");
  CLI::Option* json = command->add_flag("--json", coverage.json, "Print the report as JSON");
  command->add_option("--html", coverage.html, "Write the report as a web page")
      ->excludes(json)
      ->type_name("FILE");
}

void add_releases(CLI::App& app, Invocation& invocation) {
  (void)add_tree_command(app, "releases", "List the releases", invocation,
                         [&] { return run_releases(invocation.options); });
}

void add_rollback(CLI::App& app, Invocation& invocation) {
  publish::RollbackCommand& rollback = invocation.rollback;
  CLI::App* command =
      add_tree_command(app, "rollback", "Serve an earlier release again", invocation,
                       [&] { return run_rollback(invocation.options, rollback); });
  command->add_option("RELEASE", rollback.release,
                      "Its number (default: the one that was served before)");
  command
      ->add_option_function<int>(
          "--grace", [&rollback](int seconds) { rollback.grace = std::chrono::seconds(seconds); },
          "If the agent version decreases, switch the packages this much later (default: 15m)")
      ->transform(
          CLI::AsNumberWithUnit(std::map<std::string, int>{{"s", 1}, {"m", 60}, {"h", 3600}}))
      ->type_name("DURATION");
}

ExitStatus run(int argc, char** argv) {
  CLI::App app("Publishes updates for the hosts of a fleet, and checks what is published.",
               "norvak_publish");
  Invocation invocation;
  tools::add_version_option(app);
  add_common_options(app, invocation.options);
  add_soft(app, invocation);
  add_kernel(app, invocation);
  add_rules(app, invocation);
  add_nginx(app, invocation);
  add_package(app, invocation);
  add_check(app, invocation);
  add_coverage(app, invocation);
  add_releases(app, invocation);
  add_rollback(app, invocation);
  app.require_subcommand(1);
  app.footer("Exit status: 0 done, 1 errors found, 2 failed, 64 usage.");

  if (const std::optional<int> status = tools::parse_command_line(app, argc, argv)) {
    return static_cast<ExitStatus>(*status);
  }
  return invocation.run();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const publish::UsageError& error) {
    (void)std::fprintf(stderr, "norvak_publish: %s\n", error.what());
    return ExitStatus::kUsage;
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "norvak_publish: %s\n", error.what());
    return ExitStatus::kFailed;
  }
}
