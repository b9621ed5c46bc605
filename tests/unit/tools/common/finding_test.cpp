#include "common/finding.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

namespace {

using tools::Finding;
using tools::Painter;
using tools::Severity;

const Finding kFinding = {"pid-file-empty", Severity::kError, "/opt/agent/norvak.pid",
                          "names no process", "remove it"};

TEST(Finding, SeveritiesAreOrderedAndNamed) {
  EXPECT_LT(Severity::kNote, Severity::kWarning);
  EXPECT_LT(Severity::kWarning, Severity::kError);
  EXPECT_STREQ(tools::severity_name(Severity::kNote), "note");
  EXPECT_STREQ(tools::severity_name(Severity::kWarning), "warning");
  EXPECT_STREQ(tools::severity_name(Severity::kError), "error");
}

TEST(Finding, IsAJsonObject) {
  EXPECT_EQ(nlohmann::json(kFinding).dump(),
            R"({"code":"pid-file-empty","file":"/opt/agent/norvak.pid","fix":"remove it",)"
            R"("severity":"error","text":"names no process"})");
}

TEST(Finding, IsPrintedWithItsFix) {
  std::ostringstream out;
  tools::print_finding(out, Painter(false), kFinding);
  EXPECT_EQ(out.str(),
            "error: /opt/agent/norvak.pid: names no process [pid-file-empty]\n  fix: remove it\n");
}

TEST(Finding, IsPrintedWithoutWhatItLacks) {
  std::ostringstream out;
  tools::print_finding(out, Painter(true), {"code", Severity::kNote, "", "text", ""});
  EXPECT_EQ(out.str(), "\033[34mnote\033[0m: text [code]\n");
}

TEST(Finding, IsPrintedWithoutControlBytes) {
  std::ostringstream out;
  tools::print_finding(out, Painter(false), {"c\033", Severity::kNote, "f\n", "t\a", "x\r"});
  EXPECT_EQ(out.str(), "note: f\\n: t\\x07 [c\\x1b]\n  fix: x\\r\n");
}

}  // namespace
