#include "log_line.h"

#include <gtest/gtest.h>

#include <ctime>
#include <optional>
#include <regex>
#include <string>

#include "log_messages.h"
#include "test_support.h"

namespace {

using host::LogLine;
using host::recognise;
using host::UpdateType;

constexpr std::time_t kNever = 0x7fffffff;
constexpr char kStamp[] = "[2026-01-31 23:59:59]\t\t";

std::optional<LogLine> message(const std::string& text) { return recognise(kStamp + text, kNever); }

TEST(LogLine, EveryMessageOfTheUpdaterIsRecognised) {
  const std::string source = test_support::read_file(NORVAK_LOG_MESSAGES);
  const std::regex literal("inline constexpr char k\\w+\\[\\] =\\s*\"([^\"]*)\"");
  int count = 0;
  for (std::sregex_iterator found(source.begin(), source.end(), literal), end; found != end;
       ++found) {
    std::string text = (*found)[1];
    text = std::regex_replace(text, std::regex("%d"), "28");
    text = std::regex_replace(text, std::regex("%s"), "tessel_linux");
    const std::optional<LogLine> line = message(text);
    ASSERT_TRUE(line) << text;
    EXPECT_EQ(line->format, (*found)[1]);
    const bool is_kernel = text.find("[KERNEL]") == 0;
    EXPECT_EQ(line->type == UpdateType::kKernel, is_kernel) << text;
    EXPECT_EQ(line->module, is_kernel && text.find("tessel") != std::string::npos ? 1 : -1) << text;
    ++count;
  }
  EXPECT_EQ(count, 35);
}

TEST(LogLine, OnlyTheUpdatersModulesAreRecognised) {
  EXPECT_EQ(message("[KERNEL] download kernel norvak_ipfilter success")->module, 0);
  EXPECT_EQ(message("[KERNEL] download kernel quorin_linux success")->module, 2);
  EXPECT_FALSE(message("[KERNEL] download kernel other success"));
  EXPECT_FALSE(message("[KERNEL] download kernel tessel_linux succes"));
  EXPECT_FALSE(message("[KERNEL] download kernel tessel_linux success!"));
}

TEST(LogLine, InsertedTextsOfAnyLengthAreRecognised) {
  const std::string prefix = "[SOFT] call get_update_method function failed, config path: ";
  EXPECT_EQ(message(prefix + std::string(3000, 'x'))->format, log_messages::kSoftMethodUnreadable);
  EXPECT_EQ(message("[SOFT] download file failed [url: http://cut")->format,
            log_messages::kSoftVersionDownloadFailed);
}

TEST(LogLine, LinesOfAnotherFormAreNotRecognised) {
  const std::string text = "[RULES] update tarn rules failed";
  for (const std::string& line :
       {std::string(), text, "[2026-01-31 23:59:59] " + text, "[2026-01-31T23:59:59]\t\t" + text,
        "[2026-01-31 23:59:5]\t\t" + text, " " + std::string(kStamp) + text, std::string(kStamp),
        std::string(kStamp) + "[", kStamp + text + " "}) {
    EXPECT_FALSE(recognise(line, kNever)) << line;
  }
}

/// Sets the time zone of this process; the destructor restores the old one.
class Zone {
 public:
  explicit Zone(const char* name) : variable_("TZ", name) { ::tzset(); }
  ~Zone() { ::tzset(); }
  Zone(const Zone&) = delete;
  Zone& operator=(const Zone&) = delete;

 private:
  test_support::ScopedVariable variable_;
};

std::time_t epoch(const std::string& stamp, std::time_t written = kNever) {
  return recognise("[" + stamp + "]\t\t[RULES] don't need to update", written)->epoch();
}

TEST(LogLine, TimesAreLocal) {
  {
    const Zone zone("UTC0");
    EXPECT_EQ(epoch("1970-01-02 00:00:01"), 86401);
    EXPECT_EQ(epoch("2000-02-29 12:00:00"), 951825600);
    EXPECT_EQ(epoch("2026-12-31 23:59:59"), 1798761599);
  }
  const Zone zone("NPT-05:45");
  EXPECT_EQ(epoch("2000-02-29 12:00:00"), 951825600 - 20700);
}

// In the zone below summer time, two hours ahead of UTC, ended at 2026-10-25 01:00 UTC.
constexpr char kEurope[] = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr std::time_t kEndOfSummer = 1792890000;

TEST(LogLine, AnAmbiguousTimeIsTheLaterOneUnlessThatIsInTheFuture) {
  const Zone zone(kEurope);
  EXPECT_EQ(epoch("2026-10-25 02:30:00", kEndOfSummer + 1800), kEndOfSummer + 1800);
  EXPECT_EQ(epoch("2026-10-25 02:30:00", kNever), kEndOfSummer + 1800);
  EXPECT_EQ(epoch("2026-10-25 02:30:00", kEndOfSummer - 1800), kEndOfSummer - 1800);
  EXPECT_EQ(epoch("2026-10-25 01:59:59", kNever), kEndOfSummer - 3601);
  EXPECT_EQ(epoch("2026-10-25 03:00:00", kNever), kEndOfSummer + 3600);
}

TEST(LogLine, ATimeThatNeverOccurredIsWithinAnHourOfTheChange) {
  const Zone zone(kEurope);
  constexpr std::time_t kBeginOfSummer = 1774746000;  // 2026-03-29 01:00 UTC
  EXPECT_NEAR(static_cast<double>(epoch("2026-03-29 02:30:00")),
              static_cast<double>(kBeginOfSummer), 3600);
}

TEST(LogLine, DifferencesOfClocksAreSeconds) {
  const auto clock = [](const char* stamp) {
    return recognise("[" + std::string(stamp) + "]\t\t[RULES] don't need to update", kNever)
        ->clock();
  };
  EXPECT_EQ(clock("2024-03-01 00:00:00") - clock("2024-02-28 23:59:59"), 86401);
  EXPECT_EQ(clock("2023-03-01 00:00:00") - clock("2023-02-28 23:59:59"), 1);
  EXPECT_EQ(clock("2026-01-01 00:00:00") - clock("2025-12-31 23:59:59"), 1);
}

}  // namespace
