// What became of the last run of each update type.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "common/finding.h"
#include "host_facts.h"
#include "processes.h"
#include "update_type.h"

namespace host {

enum class Outcome { kUpdated, kNothingToDo, kRunning, kRefused, kFailed, kUnfinished, kUnknown };

inline constexpr Outcome kOutcomes[] = {
    Outcome::kUpdated, Outcome::kNothingToDo, Outcome::kRunning, Outcome::kRefused,
    Outcome::kFailed,  Outcome::kUnfinished,  Outcome::kUnknown};

/// "updated", "nothing-to-do", "running", "refused", "failed", "unfinished" or "unknown".
[[nodiscard]] const char* outcome_name(Outcome outcome);

/// Exit status, in the numbers of the Monitoring Plugins.
enum class Level { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

struct TypeStatus {
  UpdateType type;
  Outcome outcome = Outcome::kUnknown;
  Level level = Level::kUnknown;
  std::string reason;                     ///< why, for people
  std::optional<std::time_t> first_line;  ///< seconds since the epoch; nothing without a log line
  std::optional<std::time_t> last_line;
  std::vector<std::string> lines;      ///< the run's log lines
  std::vector<std::string> leftovers;  ///< paths that an interrupted run left
};

struct StatusOptions {
  std::vector<UpdateType> types;       ///< empty: those that the host shows traces of
  std::optional<std::time_t> max_age;  ///< seconds
  std::optional<std::time_t> since;    ///< seconds since the epoch
  bool all = false;                    ///< search the log without a limit
};

struct Status {
  std::vector<TypeStatus> types;
  AgentState agent = AgentState::kUnknown;
  std::vector<tools::Finding> findings;
};

/// Reads the log, the processes and the files of this host. Changes nothing.
[[nodiscard]] Status read_status(const HostFacts& facts, const StatusOptions& options);

/// The worst level, in the order critical, warning, unknown, OK; unknown if there are no types.
[[nodiscard]] Level worst_level(const Status& status);

}  // namespace host
