// norvak_publish: publishes updates on the fleet's update server.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "failure.h"

namespace {

using publish::ExitStatus;

/// The parser's own messages and texts.
int end_parsing(const CLI::App& app, const CLI::ParseError& error) {
  const bool asked_for = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
  (void)app.exit(error);
  return asked_for ? ExitStatus::kDone : ExitStatus::kUsage;
}

int run(int argc, char** argv) {
  CLI::App app("Publishes updates for the fleet's hosts, and checks what is published.",
               "norvak_publish");
  app.set_version_flag("--version", "norvak_publish " NORVAK_VERSION);
  app.require_subcommand(1);
  app.fallthrough();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return end_parsing(app, error);
  }
  return ExitStatus::kDone;
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
    return ExitStatus::kCouldNotDoIt;
  }
}
