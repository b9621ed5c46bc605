#include "log_line.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "agent_files.h"
#include "log_messages.h"

namespace host {

namespace {

constexpr std::string_view kStampShape = "[dddd-dd-dd dd:dd:dd]\t\t";
constexpr std::int64_t kDaySeconds = 86400;
constexpr std::int64_t kHourSeconds = 3600;
constexpr std::int64_t kMinuteSeconds = 60;

/// How much of a message is compared first. Every message is longer.
constexpr std::size_t kLeadBytes = 2;

/// A message format, split at its conversion specification.
class Format {
 public:
  constexpr Format(const char* format, std::optional<UpdateType> type, bool names_module = false)
      : format_(format), type_(type), names_module_(names_module) {
    const std::string_view text(format);
    const std::size_t conversion = text.find('%');
    has_argument_ = conversion != std::string_view::npos;
    prefix_ = text.substr(0, conversion);
    if (has_argument_) suffix_ = text.substr(conversion + 2);
  }

  [[nodiscard]] const char* format() const { return format_; }
  [[nodiscard]] std::optional<UpdateType> type() const { return type_; }

  /// Whether @a message was written with this format.
  /// @param[out] module  set if the message names one
  [[nodiscard]] bool matches(std::string_view message, int& module) const {
    // This rules out most formats cheaply.
    if (std::memcmp(message.data(), prefix_.data(), kLeadBytes) != 0) return false;
    if (!has_argument_) return message == prefix_;
    if (message.compare(0, prefix_.size(), prefix_) != 0) return false;
    if (!names_module_) return true;  // any path or address, perhaps truncated
    const std::string_view rest = message.substr(prefix_.size());
    for (std::size_t i = 0; i < std::size(agent_files::kModules); ++i) {
      const std::string_view name(agent_files::kModules[i]);
      if (rest.size() == name.size() + suffix_.size() && rest.compare(0, name.size(), name) == 0 &&
          rest.compare(name.size(), suffix_.size(), suffix_) == 0) {
        module = static_cast<int>(i);
        return true;
      }
    }
    return false;
  }

 private:
  const char* format_;
  std::optional<UpdateType> type_;
  bool names_module_;
  bool has_argument_ = false;
  std::string_view prefix_;
  std::string_view suffix_;
};

constexpr bool kNamesModule = true;

constexpr Format kFormats[] = {
    {log_messages::kTransferInitFailed, std::nullopt},
    {log_messages::kTransferFailed, std::nullopt},
    {log_messages::kUnknownType, std::nullopt},

    {log_messages::kSoftMethodUnreadable, UpdateType::kSoft},
    {log_messages::kSoftConfigUnreadable, UpdateType::kSoft},
    {log_messages::kSoftManual, UpdateType::kSoft},
    {log_messages::kSoftVersionDownloadFailed, UpdateType::kSoft},
    {log_messages::kSoftVersionUnknown, UpdateType::kSoft},
    {log_messages::kSoftNotNeeded, UpdateType::kSoft},
    {log_messages::kSoftPackageDownloadFailed, UpdateType::kSoft},
    {log_messages::kSoftUnpackFailed, UpdateType::kSoft},
    {log_messages::kSoftScriptFailed, UpdateType::kSoft},
    {log_messages::kSoftInstallFailed, UpdateType::kSoft},
    {log_messages::kSoftCarryOverFailed, UpdateType::kSoft},
    {log_messages::kSoftUpdated, UpdateType::kSoft},
    {log_messages::kSoftFailed, UpdateType::kSoft},

    {log_messages::kKernelListDownloadFailed, UpdateType::kKernel, kNamesModule},
    {log_messages::kKernelListUnreadable, UpdateType::kKernel},
    {log_messages::kKernelListAbnormal, UpdateType::kKernel},
    {log_messages::kKernelCheckFailed, UpdateType::kKernel, kNamesModule},
    {log_messages::kKernelCurrent, UpdateType::kKernel, kNamesModule},
    {log_messages::kKernelModuleDownloadFailed, UpdateType::kKernel, kNamesModule},
    {log_messages::kKernelModuleRefused, UpdateType::kKernel, kNamesModule},
    {log_messages::kKernelModuleVerified, UpdateType::kKernel, kNamesModule},
    {log_messages::kKernelUpdated, UpdateType::kKernel, kNamesModule},
    {log_messages::kKernelFailed, UpdateType::kKernel, kNamesModule},

    {log_messages::kNginxNotNew, UpdateType::kNginx},
    {log_messages::kNginxDownloading, UpdateType::kNginx},
    {log_messages::kNginxUpdated, UpdateType::kNginx},
    {log_messages::kNginxFailed, UpdateType::kNginx},

    {log_messages::kRulesCurrent, UpdateType::kRules},
    {log_messages::kRulesRefused, UpdateType::kRules},
    {log_messages::kRulesVerified, UpdateType::kRules},
    {log_messages::kRulesUpdated, UpdateType::kRules},
    {log_messages::kRulesFailed, UpdateType::kRules},
};

/// Days from 1970-01-01 to a date of the Gregorian calendar, which repeats every 400 years. Years
/// are counted from March, so that a leap day is the last day of its year.
constexpr std::int64_t days_since_1970(int year, int month, int day) {
  if (month <= 2) --year;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t year_of_era = year - era * 400;
  const std::int64_t day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const std::int64_t day_of_era =
      year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}
static_assert(days_since_1970(1970, 1, 1) == 0 && days_since_1970(2000, 3, 1) == 11017);

bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool has_stamp(std::string_view text) {
  return text.size() >= kStampShape.size() &&
         std::equal(kStampShape.begin(), kStampShape.end(), text.begin(),
                    [](char shape, char c) { return shape == 'd' ? is_digit(c) : shape == c; });
}

}  // namespace

std::optional<UpdateType> tagged_type(std::string_view text) {
  if (text.size() < kStampShape.size() + kLeadBytes) return std::nullopt;
  const char* const tag = text.data() + kStampShape.size();
  if (tag[0] != '[') return std::nullopt;
  switch (tag[1]) {
    case 'S':
      return UpdateType::kSoft;
    case 'K':
      return UpdateType::kKernel;
    case 'N':
      return UpdateType::kNginx;
    case 'R':
      return UpdateType::kRules;
    default:
      return std::nullopt;
  }
}

std::optional<LogLine> recognise(std::string_view text, std::time_t written) {
  if (!has_stamp(text)) return std::nullopt;
  const std::string_view message = text.substr(kStampShape.size());
  if (message.size() < kLeadBytes) return std::nullopt;
  for (const Format& format : kFormats) {
    int module = -1;
    if (!format.matches(message, module)) continue;
    LogLine line;
    line.text = text;
    line.written = written;
    line.format = format.format();
    line.type = format.type();
    line.module = module;
    return line;
  }
  return std::nullopt;
}

std::int64_t LogLine::clock() const {
  const auto number = [this](std::size_t begin, std::size_t digits) {
    int value = 0;
    for (const char c : text.substr(begin, digits)) value = value * 10 + (c - '0');
    return value;
  };
  return days_since_1970(number(1, 4), number(6, 2), number(9, 2)) * kDaySeconds +
         number(12, 2) * kHourSeconds + number(15, 2) * kMinuteSeconds + number(18, 2);
}

std::time_t LogLine::epoch() const {
  // The fields of the time stamp: gmtime_r() reverses clock().
  const std::time_t as_utc = static_cast<std::time_t>(clock());
  std::tm shown = {};
  (void)::gmtime_r(&as_utc, &shown);
  std::time_t result = -1;
  for (const int summer_time : {1, 0}) {
    std::tm local = shown;
    local.tm_isdst = summer_time;
    const std::time_t candidate = std::mktime(&local);
    const bool same = local.tm_hour == shown.tm_hour && local.tm_min == shown.tm_min;
    // One second more: file times lag slightly behind the clock that the updater reads.
    if (same && candidate > result && (result == -1 || candidate <= written + 1)) {
      result = candidate;
    }
  }
  if (result != -1) return result;
  shown.tm_isdst = -1;  // a time that this zone skips; the zone may have been changed
  return std::mktime(&shown);
}

}  // namespace host
