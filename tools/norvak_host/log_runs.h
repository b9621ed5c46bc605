// Finds the last run of each type in the update log, and what became of it.
#pragma once

#include <cstddef>
#include <ctime>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "log_line.h"
#include "update_type.h"

namespace host {

/// What the log alone says about a run.
enum class Verdict {
  kUpdated,      ///< something was installed
  kNothingToDo,  ///< the run found everything current, or took it for current
  kRefused,      ///< an automatic run on a host set to manual
  kFailed,
  kUnfinished,  ///< there is no line that ends the run
  kUnknown,     ///< lines that the verdict needs are missing, or may be another run's
};

/// One run's lines, oldest first. Never empty. Their texts are borrowed from the RunFinder.
struct LoggedRun {
  Verdict verdict;
  std::vector<LogLine> lines;
};

/// Collects the lines of the last run of one type. Lines arrive newest first, and lines of other
/// runs may be between them.
///
/// The updater writes its lines in few orders. A line belongs to the run if the updater can have
/// written it just before the earliest line that is known; any other line of the same type belongs
/// to an earlier run.
class RunCollector {
 public:
  explicit RunCollector(UpdateType type) : type_(type) {}

  /// Takes a line of this type.
  /// @return whether it belongs to the run
  bool add(const LogLine& line);

  /// How a line about a failed transfer, which names no type, fits the earliest known line.
  enum class Fit {
    kNot,
    kNeeded,    ///< the earliest known line is only ever written after such a line
    kAdjacent,  ///< it can be written after such a line, and nothing is between the two
    kPossible,  ///< it can be written after such a line, but there are other lines between
  };
  [[nodiscard]] Fit fit_of_transfer(const LogLine& line) const;

  /// Adds a line about a failed transfer to this run.
  void add_transfer(const LogLine& line);

  /// Notes that a line about a failed transfer may belong to this run.
  void doubt() { doubtful_ = true; }

  /// Passes over a line of another type.
  void pass(const LogLine& line);

  /// Passes over a line that the updater does not write, or the empty line that ends a run.
  void pass_other(bool is_end_of_run);

  /// Whether some run ended between the earliest known line and the one before it.
  [[nodiscard]] bool separated() const { return separated_; }

  /// Whether the run is known completely, so that earlier lines make no difference.
  [[nodiscard]] bool complete() const { return complete_; }

  /// Whether there is a line of this type.
  [[nodiscard]] bool found() const { return !lines_.empty(); }

  /// @pre found()
  [[nodiscard]] LoggedRun run() const;

 private:
  [[nodiscard]] const LogLine& earliest() const { return lines_[earliest_]; }
  [[nodiscard]] bool precedes(const LogLine& line) const;
  [[nodiscard]] bool has_predecessor(bool within_moment_only) const;
  [[nodiscard]] Verdict verdict() const;

  UpdateType type_;
  std::vector<LogLine> lines_;  ///< newest first
  std::size_t earliest_ = 0;    ///< index of the earliest line, failed transfers apart
  bool has_transfer_ = false;   ///< the earliest line follows a failed transfer
  bool doubtful_ = false;
  bool adjacent_ = true;
  bool separated_ = false;
  bool complete_ = false;
};

/// Sorts lines of the log, newest first, by the runs that wrote them.
class RunFinder {
 public:
  RunFinder();
  RunFinder(RunFinder&&) = default;
  RunFinder(const RunFinder&) = delete;  // the lines refer to texts in kept_
  RunFinder& operator=(RunFinder&&) = delete;
  RunFinder& operator=(const RunFinder&) = delete;
  ~RunFinder() = default;

  /// Takes the line that precedes those taken so far, without its line feed.
  /// @param written  when the file that holds it was last written
  void add(std::string_view text, std::time_t written);

  [[nodiscard]] const RunCollector& collector(UpdateType type) const {
    return collectors_[index(type)];
  }

  /// Lines that belong to no run of a known type, newest first: failed transfers, and runs of an
  /// unknown type. Only those newer than the earliest line of the runs that were found; all of them
  /// if none was found.
  [[nodiscard]] std::vector<LogLine> unowned() const;

 private:
  [[nodiscard]] bool is_of_no_interest(std::string_view text) const;
  void add_transfer(const LogLine& line);
  void keep_unowned(const LogLine& line);

  std::vector<RunCollector> collectors_;  ///< by type
  std::deque<std::string> kept_;          ///< texts of collected lines; a deque never moves them
  std::vector<LogLine> unowned_;
  std::size_t unowned_in_runs_ = 0;    ///< how many of them are newer than a line of a run
  const char* next_format_ = nullptr;  ///< of the line taken last; null if it is unknown
};

}  // namespace host
