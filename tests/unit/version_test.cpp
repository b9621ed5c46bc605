#include "version.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "test_support.h"

namespace {

using test_support::ScratchDirectory;
using test_support::write_file;

/// If false, strtol() itself limits numbers to 32 bits.
constexpr bool kWideLong = sizeof(long) > sizeof(int);

// Fields

TEST(VersionFields, AreSplitAtEverySeparatorAndNeverEmpty) {
  const struct {
    const char* text;
    const char* separators;
    string_list fields;
  } kCases[] = {
      {"3.1.10", ".", {"3", "1", "10"}},
      {"3..1", ".", {"3", "1"}},
      {"..3.1.", ".", {"3", "1"}},
      {"31", ".", {"31"}},
      {"...", ".", {}},
      {"", ".", {}},
      {"3.1-10_2.-", ".-", {"3", "1", "10_2"}},
      {"3.1", "", {"3.1"}},
      {" 3a. 1\r", ".", {" 3a", " 1\r"}},
  };
  for (const auto& [text, separators, expected] : kCases) {
    string_list fields;
    version::split(text, separators, fields);
    EXPECT_EQ(fields, expected) << text;
  }
}

TEST(VersionFields, AreAppended) {
  string_list fields = {"before"};
  version::split("3.1", ".", fields);
  EXPECT_EQ(fields, (string_list{"before", "3", "1"}));
}

// The comparison

struct VersionsCase {
  const char* name;
  const char* installed;
  const char* offered;
  bool newer;
};

class Versions : public testing::TestWithParam<VersionsCase> {};

TEST_P(Versions, AreComparedFieldByField) {
  EXPECT_EQ(version::is_newer(GetParam().offered, GetParam().installed), GetParam().newer);
}

constexpr VersionsCase kVersions[] = {
    {"NumbersNotTexts", "abcdef3.1.9", "abcdef3.1.10", true},
    {"OlderInTheSecondField", "abcdef3.2.0", "abcdef3.1.99", false},
    {"NewerInTheSecondField", "abcdef3.1.99", "abcdef3.2.0", true},
    {"NewerInTheFirstField", "abcdef3.9.9", "abcdef4.0.0", true},
    {"Equal", "abcdef3.1.10", "abcdef3.1.10", false},
    {"PrefixIsSkipped", "abcdef3.1.10", "zzzzzz3.1.10", false},
    {"DigitsInThePrefixAreSkipped", "000000.3.1", "999999.3.1", false},
    {"DotsInThePrefixAreSkipped", "1.2.3.3.1", "9.9.9.3.2", true},
    {"MoreFieldsOffered", "abcdef3.1", "abcdef3.1.1", false},
    {"MoreFieldsInstalled", "abcdef3.1.2", "abcdef3.1", false},
    {"NewerInTheLastCommonField", "abcdef3.1.9", "abcdef3.2", true},
    {"EmptyFieldsDoNotCount", "abcdef3.0", "abcdef3..1", true},
    {"DotsAtTheEnds", "abcdef3.1", "abcdef.3.2.", true},
    {"LeadingZeros", "abcdef3.1", "abcdef3.01", false},
    {"NoNumberIsZero", "abcdef3.0", "abcdef3.x", false},
    {"NoNumberIsLessThanOne", "abcdef3.x", "abcdef3.1", true},
    {"LeadingDigitsOfAField", "abcdef3.1", "abcdef3.2beta", true},
    {"TextAfterTheDigitsDoesNotCount", "abcdef3.2", "abcdef3.2beta", false},
    {"NegativeNumbers", "abcdef3.-2", "abcdef3.-1", true},
    {"BlankBefore", "abcdef3. 1", "abcdef3.  2", true},
    {"PlusSign", "abcdef3.1", "abcdef3.+2", true},
    {"OnlyDotsSeparate", "abcdef3,1", "abcdef3,2", false},
    {"CarriageReturn", "abcdef3.1", "abcdef3.1\r", false},
    {"NarrowedTo32Bits", "abcdef2", "abcdef4294967297", !kWideLong},
    {"NarrowedToANegativeNumber", "abcdef1", "abcdef2147483648", !kWideLong},
    {"InstalledPrefixOnly", "abcdef", "abcdef9.9.9", false},
    {"OfferedPrefixOnly", "abcdef0", "abcdef", false},
    {"DotsOnlyInstalled", "abcdef...", "abcdef9", false},
    {"DotsOnlyOffered", "abcdef3.1", "abcdef...", false},
};

INSTANTIATE_TEST_SUITE_P(Pairs, Versions, testing::ValuesIn(kVersions), test_support::case_name);

TEST(VersionComparison, ThrowsForATextWithoutAWholePrefix) {
  const struct {
    const char* installed;
    const char* offered;
    const char* size;  ///< of the text that is too short; the offered one is read first
  } kCases[] = {
      {"abcde", "abcdef3.1", "(which is 5)"}, {"", "abcdef3.1", "(which is 0)"},
      {"abcdef3.1", "abc", "(which is 3)"},   {"abcde", "abc", "(which is 3)"},
      {"abcdef3.1", "", "(which is 0)"},
  };
  for (const auto& [installed, offered, size] : kCases) {
    try {
      (void)version::is_newer(offered, installed);
      ADD_FAILURE() << "no exception for " << offered << " after " << installed;
    } catch (const std::out_of_range& error) {
      const std::string text = error.what();
      EXPECT_EQ(text.rfind("basic_string::substr", 0), 0U) << text;
      EXPECT_NE(text.find(size), std::string::npos) << text;
    }
  }
}

// The version file

struct VersionFileCase {
  const char* name;
  std::string contents;
  bool is_version_file;
  std::string version;
};

class VersionFile : public testing::TestWithParam<VersionFileCase> {
 protected:
  void SetUp() override { write_file(path_, GetParam().contents); }

  const ScratchDirectory dir_;
  const std::string path_ = dir_ / "version";
};

TEST_P(VersionFile, HasOneLineThatIsNotEmpty) {
  EXPECT_EQ(version::is_version_file(path_), GetParam().is_version_file);
}

TEST_P(VersionFile, GivesItsFirstLine) {
  EXPECT_EQ(version::read_version_file(path_), GetParam().version);
}

const std::string kLine62(62, 'x');
const std::string kLine1022(1022, 'x');
const std::string kCut(63, 'x');

const VersionFileCase kVersionFiles[] = {
    {"OneLine", "agent_3.1.10\n", true, "agent_3.1.10"},
    {"NoLineFeed", "agent_3.1.10", true, "agent_3.1.10"},
    {"TrailingEmptyLine", "agent_3.1.10\n\n", true, "agent_3.1.10"},
    {"ManyEmptyLines", "agent_3.1.10\n\n\n\n", true, "agent_3.1.10"},
    {"EmptyFirstLine", "\nagent_3.1.10\n", true, ""},
    {"TwoLines", "agent_3.1.10\nagent_3.1.11\n", false, "agent_3.1.10"},
    {"TwoLinesApart", "agent_3.1.10\n\nx", false, "agent_3.1.10"},
    {"Empty", "", false, ""},
    {"EmptyLinesOnly", "\n\n", false, ""},
    {"CarriageReturnStays", "agent_3.1.10\r\n", true, "agent_3.1.10\r"},
    {"BlanksStay", " agent_3.1.10 \n", true, " agent_3.1.10 "},
    {"LineOfACarriageReturnCounts", "agent_3.1.10\n\r\n", false, "agent_3.1.10"},
    {"LineOfABlankCounts", "agent_3.1.10\n \n", false, "agent_3.1.10"},
    {"LineThatBeginsWithZeroDoesNot", std::string("agent_3.1.10\n\0x\n", 16), true, "agent_3.1.10"},
    {"OnlyALineThatBeginsWithZero", std::string("\0x\n", 3), false, ""},
    {"LineOf62Characters", kLine62 + "\n", true, kLine62},
    {"LineOf63Characters", kLine62 + "x\n", true, kCut},
    {"LineOf64Characters", kLine62 + "xy\n", true, kCut},
    {"LineOf70Characters", kLine62 + "xabcdefg\n", true, kCut},
    {"PieceOf1023Characters", kLine1022 + "x", true, kCut},
    {"LineFeedAsASecondPiece", kLine1022 + "x\n", true, kCut},
    {"TwoPiecesOfOneLine", kLine1022 + "xx\n", false, kCut},
};

INSTANTIATE_TEST_SUITE_P(Files, VersionFile, testing::ValuesIn(kVersionFiles),
                         test_support::case_name);

TEST(MissingVersionFile, HoldsNoVersion) {
  const ScratchDirectory dir;
  EXPECT_FALSE(version::is_version_file(dir / "missing"));
  EXPECT_EQ(version::read_version_file(dir / "missing"), std::nullopt);
}

}  // namespace
