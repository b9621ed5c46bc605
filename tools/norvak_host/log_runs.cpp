#include "log_runs.h"

#include <algorithm>
#include <iterator>
#include <optional>

#include "agent_files.h"
#include "log_messages.h"

namespace host {

namespace {

using namespace log_messages;  // NOLINT(google-build-using-namespace): the vocabulary of this file

/// The updater writes some pairs of lines without waiting in between. If they are further apart
/// than this, they belong to different runs.
constexpr std::int64_t kMomentSeconds = 60;

/// Stands for the format of a line that was skipped.
constexpr char kNoInterest[] = "";

/// Limit of the lines that belong to no run: each of them becomes a note.
constexpr std::size_t kMostUnowned = 16;

enum class Gap { kMoment, kAny };

/// A line that a run can write just before another.
struct Pair {
  const char* before;
  const char* after;
  Gap gap;
};

constexpr Pair kPairs[] = {
    {kSoftMethodUnreadable, kSoftConfigUnreadable, Gap::kMoment},
    {kSoftVersionDownloadFailed, kSoftVersionUnknown, Gap::kMoment},
    {kSoftVersionUnknown, kSoftNotNeeded, Gap::kMoment},
    {kSoftPackageDownloadFailed, kSoftFailed, Gap::kMoment},
    {kSoftUnpackFailed, kSoftInstallFailed, Gap::kMoment},
    {kSoftScriptFailed, kSoftInstallFailed, Gap::kMoment},
    {kSoftInstallFailed, kSoftFailed, Gap::kAny},    // startup.sh runs in between
    {kSoftCarryOverFailed, kSoftFailed, Gap::kAny},  // likewise

    {kKernelListDownloadFailed, kKernelCheckFailed, Gap::kMoment},
    {kKernelListUnreadable, kKernelCheckFailed, Gap::kMoment},
    {kKernelListAbnormal, kKernelCheckFailed, Gap::kMoment},
    {kKernelModuleDownloadFailed, kKernelFailed, Gap::kMoment},
    {kKernelModuleRefused, kKernelFailed, Gap::kMoment},
    {kKernelModuleVerified, kKernelUpdated, Gap::kAny},

    {kNginxNotNew, kNginxFailed, Gap::kMoment},
    {kNginxDownloading, kNginxFailed, Gap::kAny},
    {kNginxDownloading, kNginxUpdated, Gap::kAny},

    {kRulesVerified, kRulesUpdated, Gap::kAny},
    {kRulesRefused, kRulesFailed, Gap::kMoment},
};

/// Lines that a run writes just after a transfer failed; some only then.
struct AfterTransfer {
  const char* format;
  bool only_then;
};

constexpr AfterTransfer kAfterTransfer[] = {
    {kSoftVersionDownloadFailed, true},
    {kSoftPackageDownloadFailed, false},
    {kKernelListDownloadFailed, true},
    {kKernelModuleDownloadFailed, true},
    {kNginxFailed, false},
    {kRulesCurrent, false},
    {kRulesFailed, false},
};

const AfterTransfer* after_transfer(const char* format) {
  const auto* const found =
      std::find_if(std::begin(kAfterTransfer), std::end(kAfterTransfer),
                   [format](const AfterTransfer& after) { return after.format == format; });
  return found == std::end(kAfterTransfer) ? nullptr : found;
}

bool is_transfer(const LogLine& line) {
  return line.format == kTransferFailed || line.format == kTransferInitFailed;
}

/// Whether a kernel run is done with a module after this line.
bool ends_module(const LogLine& line) {
  return line.format == kKernelCurrent || line.format == kKernelUpdated;
}

bool within_a_moment(const LogLine& before, const LogLine& after) {
  return after.clock() - before.clock() <= kMomentSeconds;
}

/// Lines that end a run of their type, with what they say about it.
struct Result {
  const char* format;
  Verdict verdict;
};

constexpr Result kResults[] = {
    {kSoftUpdated, Verdict::kUpdated},         {kSoftFailed, Verdict::kFailed},
    {kSoftNotNeeded, Verdict::kNothingToDo},   {kSoftManual, Verdict::kRefused},
    {kSoftConfigUnreadable, Verdict::kFailed},

    {kKernelFailed, Verdict::kFailed},         {kKernelCheckFailed, Verdict::kFailed},

    {kNginxUpdated, Verdict::kUpdated},        {kNginxFailed, Verdict::kFailed},

    {kRulesUpdated, Verdict::kUpdated},        {kRulesFailed, Verdict::kFailed},
    {kRulesCurrent, Verdict::kNothingToDo},
};

constexpr int kLastModule = static_cast<int>(std::size(agent_files::kModules)) - 1;

}  // namespace

bool RunCollector::add(const LogLine& line) {
  if (complete_) return false;
  if (!lines_.empty() && !precedes(line)) {
    adjacent_ = false;
    // A kernel run has lines for each module, so it is incomplete until its first module is found,
    // even if lines of another kernel run are between.
    complete_ = type_ != UpdateType::kKernel || earliest().module <= 0;
    return false;
  }
  // Two kernel messages name no module: they concern that of the line after them.
  const int module = line.module < 0 && !lines_.empty() ? earliest().module : line.module;
  earliest_ = lines_.size();
  lines_.push_back(line);
  lines_.back().module = module;
  has_transfer_ = false;
  adjacent_ = true;
  separated_ = false;
  complete_ = !has_predecessor(false);
  return true;
}

bool RunCollector::precedes(const LogLine& line) const {
  const LogLine& next = earliest();
  if (ends_module(line) && next.module == line.module + 1) return true;
  return std::any_of(std::begin(kPairs), std::end(kPairs), [&](const Pair& pair) {
    return pair.before == line.format && pair.after == next.format &&
           (line.module < 0 || line.module == next.module) &&
           (pair.gap == Gap::kAny || within_a_moment(line, next)) &&
           // After this line a run downloads nothing, so no transfer can fail.
           !(has_transfer_ && line.format == kNginxNotNew);
  });
}

/// Whether the run can have written a line before the earliest one.
bool RunCollector::has_predecessor(bool within_moment_only) const {
  const LogLine& next = earliest();
  if (next.module > 0) return true;
  if (!has_transfer_ && !within_moment_only && after_transfer(next.format) != nullptr) return true;
  return std::any_of(std::begin(kPairs), std::end(kPairs), [&](const Pair& pair) {
    return pair.after == next.format && !(within_moment_only && pair.gap == Gap::kMoment);
  });
}

RunCollector::Fit RunCollector::fit_of_transfer(const LogLine& line) const {
  if (complete_ || lines_.empty() || has_transfer_) return Fit::kNot;
  const AfterTransfer* const after = after_transfer(earliest().format);
  if (after == nullptr || !within_a_moment(line, earliest())) return Fit::kNot;
  if (after->only_then) return Fit::kNeeded;
  return adjacent_ ? Fit::kAdjacent : Fit::kPossible;
}

void RunCollector::add_transfer(const LogLine& line) {
  lines_.push_back(line);
  has_transfer_ = true;
  complete_ = !has_predecessor(false);
}

void RunCollector::pass(const LogLine& line) {
  pass_other(false);
  if (complete_ || lines_.empty() || within_a_moment(line, earliest())) return;
  complete_ = !has_predecessor(true);
}

void RunCollector::pass_other(bool is_end_of_run) {
  adjacent_ = false;
  separated_ = separated_ || is_end_of_run;
}

LoggedRun RunCollector::run() const { return {verdict(), {lines_.rbegin(), lines_.rend()}}; }

Verdict RunCollector::verdict() const {
  const LogLine& last = lines_.front();
  const auto has = [this](const char* format) {
    return std::any_of(lines_.begin(), lines_.end(),
                       [format](const LogLine& line) { return line.format == format; });
  };
  if (last.module == kLastModule && ends_module(last)) {
    if (earliest().module != 0) return Verdict::kUnknown;
    return has(kKernelUpdated) ? Verdict::kUpdated : Verdict::kNothingToDo;
  }
  const auto* const result =
      std::find_if(std::begin(kResults), std::end(kResults),
                   [&last](const Result& candidate) { return candidate.format == last.format; });
  if (result == std::end(kResults)) return Verdict::kUnfinished;
  if (last.format == kNginxFailed && has(kNginxNotNew)) return Verdict::kNothingToDo;
  if (last.format == kSoftNotNeeded && has(kSoftVersionUnknown)) return Verdict::kFailed;
  if (last.format == kRulesCurrent && has_transfer_) return Verdict::kFailed;
  if (last.format == kRulesCurrent && doubtful_) return Verdict::kUnknown;
  return result->verdict;
}

RunFinder::RunFinder() : collectors_(kUpdateTypes.begin(), kUpdateTypes.end()) {}

/// Whether the line belongs to a run before the last one of its type, and no run that was found is
/// still incomplete. That is so for most lines of a long log.
bool RunFinder::is_of_no_interest(std::string_view text) const {
  const std::optional<UpdateType> type = tagged_type(text);
  return type && collectors_[index(*type)].complete() &&
         std::none_of(collectors_.begin(), collectors_.end(), [](const RunCollector& collector) {
           return collector.found() && !collector.complete();
         });
}

void RunFinder::add(std::string_view text, std::time_t written) {
  if (is_of_no_interest(text)) {
    next_format_ = kNoInterest;
    return;
  }
  std::optional<LogLine> line = recognise(text, written);
  if (!line) {
    next_format_ = nullptr;
    for (RunCollector& collector : collectors_) collector.pass_other(text.empty());
    return;
  }
  // Most lines belong to runs before the last ones. Their texts are not copied.
  if (!line->type || !collectors_[index(*line->type)].complete()) {
    line->text = kept_.emplace_back(text);
  }
  if (is_transfer(*line)) {
    add_transfer(*line);
    return;
  }
  next_format_ = line->format;
  for (const UpdateType type : kUpdateTypes) {
    RunCollector& collector = collectors_[index(type)];
    if (type != line->type) {
      collector.pass(*line);
    } else if (collector.add(*line)) {
      unowned_in_runs_ = unowned_.size();
    }
  }
  if (!line->type) keep_unowned(*line);
}

/// A failed transfer belongs to the run that must have had one, or else to the run that wrote the
/// next line.
void RunFinder::add_transfer(const LogLine& line) {
  if (next_format_ == kNoInterest) return;  // of no interest either
  using Fit = RunCollector::Fit;
  std::vector<RunCollector*> possible;
  RunCollector* needed = nullptr;
  RunCollector* adjacent = nullptr;
  for (RunCollector& collector : collectors_) {
    switch (collector.fit_of_transfer(line)) {
      case Fit::kNeeded:
        needed = &collector;
        break;
      case Fit::kAdjacent:
        adjacent = &collector;
        break;
      case Fit::kPossible:
        possible.push_back(&collector);
        break;
      case Fit::kNot:
        break;
    }
  }
  if (needed != nullptr) {
    needed->add_transfer(line);
    return;
  }
  const AfterTransfer* const next =
      next_format_ == nullptr ? nullptr : after_transfer(next_format_);
  if (next != nullptr) {
    // It belongs to the run that wrote the next line, which may be an earlier one of its type, or
    // to another run that had not ended by then.
    if (adjacent != nullptr) adjacent->add_transfer(line);
    for (RunCollector* const run : possible) {
      if (!next->only_then && !run->separated()) run->doubt();
    }
    return;
  }
  if (possible.size() == 1) {
    possible.front()->add_transfer(line);
    return;
  }
  for (RunCollector* const run : possible) run->doubt();
  keep_unowned(line);
}

void RunFinder::keep_unowned(const LogLine& line) {
  if (unowned_.size() < kMostUnowned) unowned_.push_back(line);
}

std::vector<LogLine> RunFinder::unowned() const {
  const bool any = std::any_of(collectors_.begin(), collectors_.end(),
                               [](const RunCollector& run) { return run.found(); });
  const std::size_t count = any ? unowned_in_runs_ : unowned_.size();
  return {unowned_.begin(), unowned_.begin() + static_cast<std::ptrdiff_t>(count)};
}

}  // namespace host
