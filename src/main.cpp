// The entry point: chooses the update by the command line and drives its updater.
#include <cstdlib>
#include <string>

#include "help.h"
#include "log.h"
#include "update_soft.h"
#include "utility/cstr.h"
#include "utility/unix_helper.h"

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = -1;  // exit status 255

constexpr char kLibraryPath[] = "LD_LIBRARY_PATH";

constexpr int kAutomaticRun = 0;
constexpr int kManualUpdating = 1;

constexpr char kUnknownType[] = "Unknow update type.";  // sic: readers of the log match it

constexpr char kSoftConfigUnreadable[] = "[SOFT] read config.xml fail";
constexpr char kSoftManual[] = "[SOFT] update type is manual, but this is autoupdate subroutine";
constexpr char kSoftNotNeeded[] = "[SOFT] norvak is not need to update, or check new version fail";
constexpr char kSoftUpdated[] = "[SOFT] update norvak agent success";
constexpr char kSoftFailed[] = "[SOFT] update norvak agent failed";

/// The arguments behind the update type; null where they were not given.
struct Arguments {
  const char* second;
  const char* third;
};

/// An automatic run goes on only when the configuration allows it and the server has something new.
bool automatic_update_wanted(CUpdateSoftImpl& updater) {
  int update_type = 0;
  if (updater.get_update_method(update_type) != 0) {
    CUpdateLog::write_log(kSoftConfigUnreadable);
    return false;
  }
  if (update_type == kManualUpdating) {
    CUpdateLog::write_log(kSoftManual);
    return false;
  }
  std::string old_version;
  std::string new_version;
  if (!updater.check_norvak_new_version_exist(old_version, new_version)) {
    CUpdateLog::write_log(kSoftNotNeeded);
    return false;
  }
  return true;
}

int update_soft(CUpdateSoftImpl& updater, const Arguments& arguments) {
  const int run_mode =
      arguments.second == nullptr ? kAutomaticRun : utility::CStr::to_int(arguments.second);
  if (run_mode == kAutomaticRun && !automatic_update_wanted(updater)) return kFailure;
  if (updater.run_update_norvak_agent() != 0) {
    CUpdateLog::write_log(kSoftFailed);
    return kFailure;
  }
  CUpdateLog::write_log(kSoftUpdated);
  return kSuccess;
}

/// The life of an updater: whatever its work comes to, its work directory is removed at the end.
template <typename Updater, int (*kWork)(Updater&, const Arguments&)>
int run(const Arguments& arguments) {
  Updater updater;
  (void)updater.init();  // what a failure leaves undone shows in the work
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
};

int run_update(int type, const Arguments& arguments) {
  for (const UpdateKind& kind : kUpdateKinds) {
    if (kind.type == type) return kind.run(arguments);
  }
  CUpdateLog::write_log(kUnknownType);
  return kFailure;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc < 2) return kFailure;

  // The programs that an update starts find the agent's own libraries there.
  (void)::setenv(kLibraryPath, utility::CUnixHelper::get_norvak_path().c_str(), 1);

  const Arguments arguments = {argc > 2 ? argv[2] : nullptr, argc > 3 ? argv[3] : nullptr};
  const int result = run_update(utility::CStr::to_int(argv[1]), arguments);
  CUpdateLog::write_space();
  return result;
}
