#include "log_runs.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using host::RunFinder;
using host::UpdateType;
using host::Verdict;

constexpr std::time_t kNever = 0x7fffffff;

/// Short names of messages, so that a log fits a line.
const std::map<std::string, std::string> kMessages = {
    {"T", "CUrlOp::url_down_file: curl_easy_perform failed[7]"},
    {"unknown", "Unknow update type."},
    {"S.cannot", "[SOFT] call get_update_method function failed, config path: /a/config.xml"},
    {"S.config", "[SOFT] read config.xml fail"},
    {"S.manual", "[SOFT] update type is manual, but this is autoupdate subroutine"},
    {"S.url", "[SOFT] download file failed [url: u] [file: f]"},
    {"S.version", "[SOFT] call check_norvak_new_version_exist->download_norvak_version_file faild"},
    {"S.none", "[SOFT] norvak is not need to update, or check new version fail"},
    {"S.package", "[SOFT] call run_update_norvak_agent->download_norvak_update_package failed"},
    {"S.unpack", "call decompress_package failed"},
    {"S.install", "[SOFT] call run_update_norvak_agent->update_now failed"},
    {"S.ok", "[SOFT] update norvak agent success"},
    {"S.failed", "[SOFT] update norvak agent failed"},
    {"N.same", "[NGINX]is not new version"},
    {"N.new", "[NGINX]new version is exist, download now"},
    {"N.ok", "[NGINX] download nginx success"},
    {"N.failed", "[NGINX] download nginx failed"},
    {"R.none", "[RULES] don't need to update"},
    {"R.verified", "download_tarn_rules_file: check download rule MD5 success"},
    {"R.refused", "download_tarn_rules_file: check download rule MD5 false"},
    {"R.ok", "[RULES] update tarn rules success"},
    {"R.failed", "[RULES] update tarn rules failed"},
    {"K.abnormal", "[KERNEL] download MD5 file is abnormal"},
    {"K.unreadable", "[KERNEL] open MD5 template file failed"},
};

std::string message(const std::string& name) {
  const auto found = kMessages.find(name);
  if (found != kMessages.end()) return found->second;
  // K1.none and so on, by module.
  static const char* const modules[] = {"norvak_ipfilter", "tessel_linux", "quorin_linux"};
  const std::string module = modules[name[1] - '1'];
  const std::string what = name.substr(3);
  if (what == "none") return "[KERNEL] don't need to download " + module;
  if (what == "list") return "[KERNEL] download " + module + " MD5 failed";
  if (what == "check") return "[KERNEL] check kernel " + module + " MD5 failed";
  if (what == "verified") return "[KERNEL] check download " + module + " kernel MD5 success";
  if (what == "refused") return "[KERNEL] check download " + module + " kernel MD5 false";
  if (what == "ok") return "[KERNEL] download kernel " + module + " success";
  if (what == "failed") return "[KERNEL] download kernel " + module + " failed";
  ADD_FAILURE() << name;
  return "";
}

/// Reads a log that is written as short names: "|" is the empty line at the end of a run, "+N" lets
/// N seconds pass.
RunFinder find(const std::string& log) {
  std::istringstream words(log);
  std::vector<std::string> lines;
  int seconds = 0;
  for (std::string word; words >> word;) {
    if (word[0] == '+' || word[0] == '-') {
      seconds += std::stoi(word);
    } else if (word == "|") {
      lines.emplace_back();
    } else {
      char stamp[64];
      (void)std::snprintf(stamp, sizeof stamp, "[2026-01-31 %02d:%02d:%02d]\t\t",
                          12 + seconds / 3600, seconds / 60 % 60, seconds % 60);
      lines.push_back(stamp + message(word));
    }
  }
  RunFinder finder;
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) finder.add(*line, kNever);
  return finder;
}

struct Case {
  const char* name;
  const char* log;
  UpdateType type;
  Verdict verdict;
  std::size_t lines;
};

class LastRun : public testing::TestWithParam<Case> {};

TEST_P(LastRun, IsJudged) {
  const RunFinder finder = find(GetParam().log);
  ASSERT_TRUE(finder.collector(GetParam().type).found());
  const host::LoggedRun run = finder.collector(GetParam().type).run();
  EXPECT_EQ(run.verdict, GetParam().verdict);
  EXPECT_EQ(run.lines.size(), GetParam().lines);
}

constexpr UpdateType kSoft = UpdateType::kSoft;
constexpr UpdateType kKernel = UpdateType::kKernel;
constexpr UpdateType kNginx = UpdateType::kNginx;
constexpr UpdateType kRules = UpdateType::kRules;

INSTANTIATE_TEST_SUITE_P(
    Sequential, LastRun,
    testing::Values(
        Case{"SoftNone", "S.none |", kSoft, Verdict::kNothingToDo, 1},
        Case{"SoftNoneAfterFailure", "S.version S.none | +100 S.none |", kSoft,
             Verdict::kNothingToDo, 1},
        Case{"SoftNoneAfterFailureAtOnce", "S.version S.none | S.none |", kSoft,
             Verdict::kNothingToDo, 1},
        Case{"SoftVersion", "T S.url S.version S.none |", kSoft, Verdict::kFailed, 4},
        Case{"SoftUnfinishedVersionCheck", "T S.url S.version +1", kSoft, Verdict::kUnfinished, 3},
        Case{"SoftNoneAfterKilledRun", "T S.url S.version +3600 S.none |", kSoft,
             Verdict::kNothingToDo, 1},
        Case{"SoftPackage", "T S.package S.failed |", kSoft, Verdict::kFailed, 3},
        Case{"SoftInstallAndSlowStart", "S.unpack S.install +900 S.failed |", kSoft,
             Verdict::kFailed, 3},
        Case{"SoftManual", "S.manual |", kSoft, Verdict::kRefused, 1},
        Case{"SoftConfig", "S.cannot S.config |", kSoft, Verdict::kFailed, 2},
        Case{"SoftConfigUnfinished", "S.ok | S.cannot", kSoft, Verdict::kUnfinished, 1},
        Case{"SoftUpdated", "S.none | S.ok |", kSoft, Verdict::kUpdated, 1},

        Case{"KernelNone", "K1.none K2.none K3.none |", kKernel, Verdict::kNothingToDo, 3},
        Case{"KernelUpdatedSlowly",
             "K1.verified +500 K1.ok +3000 K2.none +3000 K3.verified K3.ok |", kKernel,
             Verdict::kUpdated, 5},
        Case{"KernelFirstFails", "K1.none K2.none K3.none | T K1.list K1.check |", kKernel,
             Verdict::kFailed, 3},
        Case{"KernelLastFails", "K1.verified K1.ok K2.none K3.refused K3.failed |", kKernel,
             Verdict::kFailed, 5},
        Case{"KernelAbnormal", "K1.none K2.none K.abnormal K3.check |", kKernel, Verdict::kFailed,
             4},
        Case{"KernelUnreadable", "K1.none K.unreadable K2.check |", kKernel, Verdict::kFailed, 3},
        Case{"KernelConfigGoes", "K1.none K2.failed |", kKernel, Verdict::kFailed, 2},
        Case{"KernelTwoOfThree", "K1.none K2.none K3.none | K1.none K2.none", kKernel,
             Verdict::kUnfinished, 2},
        Case{"KernelEndsVerified", "K1.none K2.verified", kKernel, Verdict::kUnfinished, 2},
        Case{"KernelEndsAbnormal", "K1.none K.abnormal", kKernel, Verdict::kUnfinished, 1},
        Case{"KernelAfterKilledRun", "K1.none K2.verified K1.none K2.none K3.none |", kKernel,
             Verdict::kNothingToDo, 3},
        Case{"KernelBeginningLost", "K2.none K3.none |", kKernel, Verdict::kUnknown, 2},

        Case{"NginxSame", "N.same N.failed |", kNginx, Verdict::kNothingToDo, 2},
        Case{"NginxSameAndMore", "N.new N.failed | N.same N.failed |", kNginx,
             Verdict::kNothingToDo, 2},
        Case{"NginxFailedAfterSame", "N.same N.failed | N.failed |", kNginx, Verdict::kFailed, 1},
        Case{"NginxFailedAfterKilledRun", "N.same T N.failed |", kNginx, Verdict::kFailed, 2},
        Case{"NginxFailedLongAfterKilledRun", "N.same +3600 N.failed |", kNginx, Verdict::kFailed,
             1},
        Case{"NginxProgram", "N.new +4000 T N.failed |", kNginx, Verdict::kFailed, 3},
        Case{"NginxUpdated", "N.new +4000 N.ok |", kNginx, Verdict::kUpdated, 2},
        Case{"NginxUnfinished", "N.new", kNginx, Verdict::kUnfinished, 1},
        Case{"NginxUnfinishedSame", "N.same", kNginx, Verdict::kUnfinished, 1},

        Case{"RulesNone", "R.none |", kRules, Verdict::kNothingToDo, 1},
        Case{"RulesTransfer", "T R.none |", kRules, Verdict::kFailed, 2},
        Case{"RulesNoneAfterTransfer", "T R.none | R.none |", kRules, Verdict::kNothingToDo, 1},
        Case{"RulesNoneLongAfterKilledRun", "T +3600 R.none |", kRules, Verdict::kNothingToDo, 1},
        Case{"RulesFailed", "T R.failed |", kRules, Verdict::kFailed, 2},
        Case{"RulesRefused", "R.refused R.failed |", kRules, Verdict::kFailed, 2},
        Case{"RulesUpdated", "R.verified R.ok |", kRules, Verdict::kUpdated, 2},
        Case{"RulesUnfinished", "R.none | R.verified", kRules, Verdict::kUnfinished, 1}),
    test_support::case_name);

INSTANTIATE_TEST_SUITE_P(
    AfterOthers, LastRun,
    testing::Values(
        Case{"TransferOfNginx", "T N.failed | R.none |", kRules, Verdict::kNothingToDo, 1},
        Case{"TransferOfSoft", "T S.package S.failed | R.none |", kRules, Verdict::kNothingToDo, 1},
        Case{"TransferOfAnEarlierKernelRun",
             "T K1.list K1.check | R.none | K1.none K2.none K3.none |", kRules,
             Verdict::kNothingToDo, 1}),
    test_support::case_name);

INSTANTIATE_TEST_SUITE_P(
    Interleaved, LastRun,
    testing::Values(
        Case{"KernelBetweenAll", "K1.none N.new S.version K2.none R.none | S.none | K3.none N.ok |",
             kKernel, Verdict::kNothingToDo, 3},
        Case{"SoftBetween", "S.version K1.none | S.none |", kSoft, Verdict::kFailed, 2},
        Case{"NginxBetween", "N.same K1.none | N.failed |", kNginx, Verdict::kNothingToDo, 2},
        Case{"OnlyRulesCanOwnTheTransfer", "T K1.none R.none |", kRules, Verdict::kFailed, 2},
        Case{"OnlyRulesCanOwnTheTransferAfterAnEnd", "T | R.none |", kRules, Verdict::kFailed, 2},
        Case{"TheKernelNeedsTheTransfer", "T R.none | K1.list K1.check |", kRules,
             Verdict::kNothingToDo, 1},
        Case{"TheKernelNeedsOneOfTwoTransfers", "T T R.none | K1.list K1.check |", kRules,
             Verdict::kFailed, 2},
        Case{"NginxOrRules", "T N.failed R.none | |", kRules, Verdict::kUnknown, 1},
        Case{"RulesOrNginx", "T K1.none R.none N.failed | |", kRules, Verdict::kUnknown, 1},
        Case{"TwoKernelRuns", "K1.none K1.none K2.none K2.none K3.none K3.none | |", kKernel,
             Verdict::kNothingToDo, 3},
        Case{"TwoKernelRunsOneIsKilled", "K1.none K1.none K2.none K3.none K2.none |", kKernel,
             Verdict::kUnfinished, 2},
        Case{"TwoKernelRunsOneFails",
             "K1.none K1.none K.abnormal K2.check | K2.verified K2.ok K3.none |", kKernel,
             Verdict::kUpdated, 4},
        Case{"ClockGoesBack", "S.version -3600 +3610 -3610 S.none |", kSoft, Verdict::kFailed, 2}),
    test_support::case_name);

TEST(RunCollector, IsCompleteOnceNoEarlierLineMatters) {
  for (const UpdateType type : host::kUpdateTypes) {
    const RunFinder finder =
        find("S.none | S.ok | K1.none K2.none K3.none | N.new N.ok | R.verified R.ok |");
    EXPECT_TRUE(finder.collector(type).complete());
  }
  EXPECT_FALSE(find("S.ok | N.new N.ok |").collector(kKernel).complete());
  EXPECT_FALSE(find("S.none |").collector(kSoft).complete());
  EXPECT_TRUE(find("N.failed | +61 S.none |").collector(kSoft).complete());
  EXPECT_FALSE(find("N.failed | +59 S.none |").collector(kSoft).complete());
  EXPECT_TRUE(find("N.failed | +61 R.none |").collector(kRules).complete());
}

std::vector<std::string> unowned(const std::string& log) {
  std::vector<std::string> texts;
  const RunFinder finder = find(log);
  for (const host::LogLine& line : finder.unowned()) texts.emplace_back(line.text.substr(23));
  return texts;
}

TEST(RunFinder, LinesWithoutAKnownRunAreKept) {
  EXPECT_EQ(unowned("unknown |"), std::vector<std::string>{message("unknown")});
  EXPECT_EQ(unowned("S.ok | unknown |"), std::vector<std::string>{message("unknown")});
  EXPECT_EQ(unowned("S.ok | T"), std::vector<std::string>{message("T")});
  EXPECT_EQ(unowned("T +100 S.ok | T N.failed |"), std::vector<std::string>{});
}

TEST(RunFinder, LinesOlderThanTheLastRunsAreOfNoInterest) {
  EXPECT_EQ(unowned("unknown | S.ok |"), std::vector<std::string>{});
  EXPECT_EQ(unowned("T K1.list K1.check | K1.none K2.none K3.none |"), std::vector<std::string>{});
  EXPECT_EQ(unowned("N.new N.ok | T K1.list K1.check | K1.none K2.none K3.none |"),
            std::vector<std::string>{});
  EXPECT_EQ(unowned("N.new N.ok | T +100 S.ok | S.ok |").size(), 0U);
}

}  // namespace
