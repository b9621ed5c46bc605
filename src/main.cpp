// Entry point: selects the update from the command line and runs its updater.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <string_view>

#include "agent_files.h"
#include "help.h"
#include "log.h"
#include "log_messages.h"
#include "update_kernel.h"
#include "update_nginx.h"
#include "update_rule.h"
#include "update_soft.h"
#include "utility/cstr.h"
#include "utility/unix_helper.h"

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = -1;  // exit status 255

constexpr char kLibraryPath[] = "LD_LIBRARY_PATH";

constexpr int kAutomaticRun = 0;

/// The arguments after the update type; null if they were not given.
struct Arguments {
  const char* run_mode_or_version;  ///< type 0: run mode; type 2: version directory
  const char* word_size;            ///< type 2
};

/// An automatic run continues only if the configuration allows it and the server has a newer agent.
bool automatic_update_wanted(CUpdateSoftImpl& updater) {
  int update_type = 0;
  if (updater.get_update_method(update_type) != 0) {
    CUpdateLog::write_log(log_messages::kSoftConfigUnreadable);
    return false;
  }
  if (update_type == CUpdateSoftImpl::kManualUpdating) {
    CUpdateLog::write_log(log_messages::kSoftManual);
    return false;
  }
  std::string old_version;
  std::string new_version;
  if (!updater.check_norvak_new_version_exist(old_version, new_version)) {
    CUpdateLog::write_log(log_messages::kSoftNotNeeded);
    return false;
  }
  return true;
}

int update_soft(CUpdateSoftImpl& updater, const Arguments& arguments) {
  const int run_mode = arguments.run_mode_or_version == nullptr
                           ? kAutomaticRun
                           : utility::CStr::to_int(arguments.run_mode_or_version);
  if (run_mode == kAutomaticRun && !automatic_update_wanted(updater)) return kFailure;
  if (updater.run_update_norvak_agent() != 0) {
    CUpdateLog::write_log(log_messages::kSoftFailed);
    return kFailure;
  }
  CUpdateLog::write_log(log_messages::kSoftUpdated);
  return kSuccess;
}

/// @return false if the remaining modules must not be checked
bool update_module(CUpdateKernelImpl& updater, const char* name) {
  switch (updater.check_update_kernel(name)) {
    case CUpdateKernelImpl::kNothingToDo:
      CUpdateLog::write_log(log_messages::kKernelCurrent, name);
      return true;
    case CUpdateKernelImpl::kMustDownload:
      break;
    default:
      CUpdateLog::write_log(log_messages::kKernelCheckFailed, name);
      return false;
  }
  if (updater.download_kernel(name) == 0) {
    CUpdateLog::write_log(log_messages::kKernelUpdated, name);
    return true;
  }
  CUpdateLog::write_log(log_messages::kKernelFailed, name);
  // The first module is independent; of the other two, one must not be installed without the other.
  if (name != std::string_view(agent_files::kIpfilterModule)) updater.clear_tarn_kernel();
  return false;
}

int update_kernel(CUpdateKernelImpl& updater, const Arguments&) {
  for (const char* name : agent_files::kModules) {
    if (!update_module(updater, name)) return kFailure;
  }
  return kSuccess;
}

int update_nginx(CUpdateNginxImpl& updater, const Arguments& arguments) {
  const auto& [version, word_size] = arguments;
  const bool complete = version != nullptr && word_size != nullptr;
  if (!complete || updater.download_nginx(version, word_size) != 0) {
    CUpdateLog::write_log(log_messages::kNginxFailed);
    return kFailure;
  }
  CUpdateLog::write_log(log_messages::kNginxUpdated);
  return kSuccess;
}

int update_rules(CUpdateRuleImpl& updater, const Arguments&) {
  if (!updater.check_tarn_rules_md5()) {
    CUpdateLog::write_log(log_messages::kRulesCurrent);
    return kFailure;  // a run without new rules counts as failed
  }
  if (updater.download_tarn_rules_file() != 0) {
    CUpdateLog::write_log(log_messages::kRulesFailed);
    return kFailure;
  }
  (void)CHelper::stop_norvak_agent();  // this program does not start it again
  CUpdateLog::write_log(log_messages::kRulesUpdated);
  return kSuccess;
}

/// Runs an updater. Whatever the result, its work directory is removed at the end.
template <typename Updater, int (*kWork)(Updater&, const Arguments&)>
int run(const Arguments& arguments) {
  Updater updater;
  (void)updater.init();  // a failed init() surfaces in the steps that need it
  const int result = kWork(updater, arguments);
  updater.release();
  return result;
}

struct UpdateKind {
  int type;
  int (*run)(const Arguments& arguments);
};

constexpr UpdateKind kUpdateKinds[] = {
    {0, run<CUpdateSoftImpl, update_soft>},
    {1, run<CUpdateKernelImpl, update_kernel>},
    {2, run<CUpdateNginxImpl, update_nginx>},
    {3, run<CUpdateRuleImpl, update_rules>},
};

int run_update(int type, const Arguments& arguments) {
  for (const UpdateKind& kind : kUpdateKinds) {
    if (kind.type == type) return kind.run(arguments);
  }
  CUpdateLog::write_log(log_messages::kUnknownType);
  return kFailure;
}

/// Skips the exit handlers: everything is written and closed, they only free memory, and they take
/// 4 % of a small run.
int end_process(int status) {
#ifndef NORVAK_ORDERLY_EXIT  // set for builds that report leaks or coverage at exit
  ::_exit(status);
#endif
  return status;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc < 2) return kFailure;

  // A caller may ignore SIGCHLD, as daemons do; system() then cannot get a child's exit status.
  (void)std::signal(SIGCHLD, SIG_DFL);
  // So that the programs an update starts find the agent's own libraries.
  (void)::setenv(kLibraryPath, utility::CUnixHelper::get_norvak_path().c_str(), 1);

  const Arguments arguments = {argc > 2 ? argv[2] : nullptr, argc > 3 ? argv[3] : nullptr};
  const int result = run_update(utility::CStr::to_int(argv[1]), arguments);
  CUpdateLog::write_space();
  return end_process(result);
}
