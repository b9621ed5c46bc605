#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "check.h"
#include "check_url.h"
#include "commands.h"
#include "common/command_line.h"
#include "progress.h"
#include "release_tree.h"

namespace publish {

namespace {

Findings find(const PublishOptions& options, const CheckCommand& command) {
  const ProgressBar progress("Checking", options.quiet);
  const CheckOptions check{command.previous_version, command.fleet, progress.callback(), {}};
  if (command.target.find("://") != std::string::npos) return check_url(command.target, check);
  return check_tree(ReleaseTree(command.target).served(), check);
}

struct Counts {
  std::ptrdiff_t errors;
  std::ptrdiff_t warnings;
  std::ptrdiff_t notes;
};

Counts count(const Findings& findings) {
  const auto of = [&](tools::Severity severity) {
    return std::count_if(
        findings.begin(), findings.end(),
        [severity](const tools::Finding& finding) { return finding.severity == severity; });
  };
  return {of(tools::Severity::kError), of(tools::Severity::kWarning), of(tools::Severity::kNote)};
}

std::string amount(std::ptrdiff_t number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

}  // namespace

ExitStatus run_check(const PublishOptions& options, const CheckCommand& command) {
  const Findings findings = find(options, command);
  const Counts counts = count(findings);
  if (command.json) {
    tools::print_json(std::cout, {{"checked", command.target},
                                  {"errors", counts.errors},
                                  {"warnings", counts.warnings},
                                  {"notes", counts.notes},
                                  {"findings", findings}});
  } else {
    const tools::Painter paint(tools::use_color(options.color, STDOUT_FILENO));
    for (const tools::Finding& finding : findings) tools::print_finding(std::cout, paint, finding);
    say(options, amount(counts.errors, "error") + ", " + amount(counts.warnings, "warning") + ", " +
                     amount(counts.notes, "note"));
  }
  const bool failed = counts.errors != 0 || (command.strict && counts.warnings != 0);
  return failed ? ExitStatus::kErrorsFound : ExitStatus::kDone;
}

}  // namespace publish
