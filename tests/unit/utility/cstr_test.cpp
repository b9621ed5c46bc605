#include "utility/cstr.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>

namespace {

using utility::CStr;

constexpr char kEveryAsciiSpace[] = " \t\r\n\v\f";

struct Change {
  std::string before;
  std::string after;
};

std::string trimmed(std::string s) {
  CStr::trim(s);
  return s;
}

std::string left_trimmed(std::string s) {
  CStr::left_trim(s);
  return s;
}

std::string right_trimmed(std::string s) {
  CStr::right_trim(s);
  return s;
}

std::string without_remark(const std::string& marker, std::string s) {
  CStr::trim_remark(marker, s);
  return s;
}

std::string without_remarks(const std::string& open, const std::string& close, std::string s) {
  CStr::trim_remark(open, close, s);
  return s;
}

string_list words_of(const std::string& text) {
  string_list words;
  CStr::ext_line(words, text);
  return words;
}

string_list pieces_of(const std::string& text, const std::string& delimiter) {
  string_list pieces;
  CStr::ext_line(delimiter, pieces, text);
  return pieces;
}

std::string replaced(std::string s, const std::string& from, const std::string& to) {
  CStr::string_replace(s, from, to);
  return s;
}

/// The number that a string stream reads; the conversions must agree with it.
template <typename Number>
Number streamed(const std::string& text) {
  Number number = 0;
  std::istringstream(text) >> number;
  return number;
}

TEST(CStr, TrimGivesTheBareWord) { EXPECT_EQ(trimmed(" \t \tword\r\n"), "word"); }

TEST(CStr, TrimOfWhiteSpaceAloneGivesTheEmptyString) {
  for (const char* const text : {"", " ", "\t", "\r", "\n", " \t\r\n\n\r\t "}) {
    EXPECT_EQ(trimmed(text), "");
    EXPECT_EQ(left_trimmed(text), "");
    EXPECT_EQ(right_trimmed(text), "");
  }
}

TEST(CStr, TrimLeavesOtherBlanksInPlace) {
  const std::string zero(1, '\0');
  for (const std::string& blank : {std::string("\f"), std::string("\v"), std::string("\xa0"),
                                   std::string("\xc2\xa0"), std::string("\xe3\x80\x80"), zero}) {
    const std::string text = std::string(blank).append("word").append(blank);
    EXPECT_EQ(trimmed(text), text);
    EXPECT_EQ(trimmed(" " + text + " "), text);
    EXPECT_EQ(trimmed(blank), blank);
  }
}

TEST(CStr, TrimTouchesTheEndsOnly) {
  EXPECT_EQ(trimmed("\n a \t b\r\nc "), "a \t b\r\nc");
  EXPECT_EQ(trimmed("untouched"), "untouched");
}

TEST(CStr, LeftAndRightTrimEachTouchOneEnd) {
  EXPECT_EQ(left_trimmed(" \t\r\n word \t\r\n"), "word \t\r\n");
  EXPECT_EQ(right_trimmed(" \t\r\n word \t\r\n"), " \t\r\n word");
}

TEST(CStr, TrimByteErasesTheRunsOfOneCharacter) {
  const Change kChanges[] = {{"xxaxbxx", "axb"}, {"xxx", ""},    {"", ""},      {"x", ""},
                             {" xax ", " xax "}, {"abc", "abc"}, {"XxX", "XxX"}};
  for (const Change& change : kChanges) {
    std::string s = change.before;
    CStr::trim_byte('x', s);
    EXPECT_EQ(s, change.after) << change.before;
  }
  std::string zeros("\0\0a\0b\0", 6);
  CStr::trim_byte('\0', zeros);
  EXPECT_EQ(zeros, std::string("a\0b", 3));
}

TEST(CStr, LeftAndRightTrimByteEachTouchOneEnd) {
  std::string left = "xxaxbxx";
  CStr::left_trim_byte('x', left);
  EXPECT_EQ(left, "axbxx");
  std::string right = "xxaxbxx";
  CStr::right_trim_byte('x', right);
  EXPECT_EQ(right, "xxaxb");
  std::string nothing_else = "xxx";
  CStr::left_trim_byte('x', nothing_else);
  EXPECT_EQ(nothing_else, "");
  nothing_else = "xxx";
  CStr::right_trim_byte('x', nothing_else);
  EXPECT_EQ(nothing_else, "");
}

TEST(CStr, ARemarkIsRemovedFromItsMarkerOnAndTheBlankBeforeStays) {
  EXPECT_EQ(without_remark("#", "setting 1 # a remark # in a remark"), "setting 1 ");
}

TEST(CStr, RemarkMarkerCutsAtItsFirstOccurrence) {
  EXPECT_EQ(without_remark("//", "a/b // c // d"), "a/b ");
  EXPECT_EQ(without_remark("#", "# all"), "");
  EXPECT_EQ(without_remark("#", "none"), "none");
  EXPECT_EQ(without_remark("#", ""), "");
  EXPECT_EQ(without_remark("", "an empty marker is found at the start"), "");
}

TEST(CStr, ClosedRemarksAreRemovedAndAnUnclosedOneStays) {
  EXPECT_EQ(without_remarks("/*", "*/", "a /* 1 */b/* 2 */ c /* open"), "a b c /* open");
}

TEST(CStr, RemarkSpansFollowTheirRules) {
  struct Case {
    const char* why;
    std::string open, close, before, after;
  };
  const Case kCases[] = {
      {"nothing to do", "<", ">", "text", "text"},
      {"empty text", "<", ">", "", ""},
      {"whole text", "<", ">", "<text>", ""},
      {"a close before the open does not count", "<", ">", "a> b <c> d", "a> b  d"},
      {"the first close ends the span", "<", ">", "<a<b>c>", "c>"},
      {"what grew together is searched again", "<", ">", "a<<1>b>c", "ab>c"},
      {"spans may join to a new one", "(*", "*)", "((*1*)*2*)3", "3"},
      {"the close is searched from where the open begins", "/*", "*/", "a/*/b", "ab"},
      {"equal markers are removed one by one", "#", "#", "a#b#c#", "abc"},
      {"an empty open begins at the start", "", ">", "a>b>c", "c"},
      {"an empty close changes nothing", "<", "", "a<b", "a<b"},
      {"a lone close stays", "<", ">", "a>b", "a>b"},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(without_remarks(c.open, c.close, c.before), c.after) << c.why;
  }
}

TEST(CStr, WordsAreSeparatedByAnyWhiteSpace) {
  EXPECT_EQ(words_of(" one\ttwo\r\nthree\vfour\ffive "),
            (string_list{"one", "two", "three", "four", "five"}));
  EXPECT_EQ(words_of("word"), (string_list{"word"}));
  EXPECT_EQ(words_of("no\xa0"
                     "break"),
            (string_list{"no\xa0"
                         "break"}));
  EXPECT_EQ(words_of(""), string_list());
  EXPECT_EQ(words_of(kEveryAsciiSpace), string_list());
}

TEST(CStr, WordsAndPiecesAreAppended) {
  string_list list = {"first"};
  CStr::ext_line(list, "second third");
  CStr::ext_line(",", list, "fourth,fifth");
  EXPECT_EQ(list, (string_list{"first", "second", "third", "fourth", "fifth"}));
}

TEST(CStr, OuterAndAdjacentDelimitersGiveNoEmptyPieces) {
  EXPECT_EQ(pieces_of(",one,,two,", ","), (string_list{"one", "two"}));
}

TEST(CStr, PiecesAreSplitAtTheWholeDelimiter) {
  EXPECT_EQ(pieces_of("one, two,three", ", "), (string_list{"one", "two,three"}));
  EXPECT_EQ(pieces_of("aXXXb", "XX"), (string_list{"a", "Xb"}));
  EXPECT_EQ(pieces_of(" a ,b", ","), (string_list{" a ", "b"}));
  EXPECT_EQ(pieces_of("text", ","), (string_list{"text"}));
  EXPECT_EQ(pieces_of("text", "longer than the text"), (string_list{"text"}));
  EXPECT_EQ(pieces_of(",,,", ","), string_list());
  EXPECT_EQ(pieces_of("", ","), string_list());
}

TEST(CStr, AnEmptyDelimiterSplitsNothing) {
  EXPECT_EQ(pieces_of("text", ""), (string_list{"text"}));
  EXPECT_EQ(pieces_of("", ""), string_list());
}

TEST(CStr, EveryOccurrenceIsReplacedFromLeftToRight) {
  EXPECT_EQ(replaced("a.b.c.", ".", "::"), "a::b::c::");
  EXPECT_EQ(replaced("a::b::c", "::", "."), "a.b.c");
  EXPECT_EQ(replaced("aaa", "aa", "b"), "ba");
  EXPECT_EQ(replaced("abab", "ab", ""), "");
  EXPECT_EQ(replaced("text", "x-ray", "y"), "text");
  EXPECT_EQ(replaced("", "a", "b"), "");
}

TEST(CStr, WhatWasInsertedIsNotReplacedAgain) {
  EXPECT_EQ(replaced("a b", "a", "aa"), "aa b");
  EXPECT_EQ(replaced("xyy", "xy", "x"), "xy");
}

TEST(CStr, ReplacingTheEmptyStringChangesNothing) { EXPECT_EQ(replaced("text", "", "x"), "text"); }

TEST(CStr, NumbersEndAtTheFirstOtherCharacter) {
  struct Case {
    std::string text;
    long long number;
  };
  const Case kCases[] = {
      {"0", 0},   {"42", 42},    {"+42", 42},   {"-42", -42}, {" \t\r\n\v\f7", 7},
      {"007", 7}, {"12abc", 12}, {"12 34", 12}, {"1e5", 1},   {"0x10", 0},
      {"3.9", 3}, {"- 5", 0},    {"--5", 0},    {"1,000", 1}, {"8\xa0", 8}};
  for (const Case& c : kCases) {
    EXPECT_EQ(CStr::atoll(c.text), c.number) << c.text;
    EXPECT_EQ(CStr::atol(c.text), c.number) << c.text;
    EXPECT_EQ(CStr::atoull(c.text), static_cast<unsigned long long>(c.number)) << c.text;
    EXPECT_EQ(CStr::atoll(c.text), streamed<long long>(c.text)) << c.text;
    EXPECT_EQ(CStr::atoull(c.text), streamed<unsigned long long>(c.text)) << c.text;
  }
}

TEST(CStr, TextWithoutANumberGivesZero) {
  for (const char* const text : {"", " ", "text", "+", "-", "x1", "\xa0\x31"}) {
    EXPECT_EQ(CStr::atoull(text), 0U) << text;
    EXPECT_EQ(CStr::atoll(text), 0) << text;
    EXPECT_EQ(CStr::atol(text), 0) << text;
  }
}

TEST(CStr, NumbersAtAndBeyondTheLimitsGiveTheLimits) {
  using Signed = std::numeric_limits<long long>;
  using Unsigned = std::numeric_limits<unsigned long long>;
  EXPECT_EQ(CStr::atoll("9223372036854775807"), Signed::max());
  EXPECT_EQ(CStr::atoll("9223372036854775808"), Signed::max());
  EXPECT_EQ(CStr::atoll("-9223372036854775808"), Signed::min());
  EXPECT_EQ(CStr::atoll("-99999999999999999999"), Signed::min());
  EXPECT_EQ(CStr::atoull("18446744073709551615"), Unsigned::max());
  EXPECT_EQ(CStr::atoull("18446744073709551616"), Unsigned::max());
  EXPECT_EQ(CStr::atol("99999999999999999999"), std::numeric_limits<long>::max());
  EXPECT_EQ(CStr::atol("-99999999999999999999"), std::numeric_limits<long>::min());
}

TEST(CStr, NumbersBecomeDecimalText) {
  EXPECT_EQ(CStr::ulltoa(0), "0");
  EXPECT_EQ(CStr::ulltoa(18446744073709551615ULL), "18446744073709551615");
  EXPECT_EQ(CStr::lltoa(0), "0");
  EXPECT_EQ(CStr::lltoa(-1), "-1");
  EXPECT_EQ(CStr::lltoa(std::numeric_limits<long long>::max()), "9223372036854775807");
  EXPECT_EQ(CStr::lltoa(std::numeric_limits<long long>::min()), "-9223372036854775808");
}

TEST(CStr, ToIntReadsLikeStrtol) {
  struct Case {
    const char* text;
    int number;
  };
  constexpr Case kCases[] = {{"", 0},
                             {"0", 0},
                             {"3", 3},
                             {" \t\n\v\f\r3", 3},
                             {"+3", 3},
                             {"-3", -3},
                             {"3x", 3},
                             {"x3", 0},
                             {"0x3", 0},
                             {"03", 3},
                             {"3 4", 3},
                             {"1\n", 1},
                             {"--1", 0},
                             {"2147483647", std::numeric_limits<int>::max()},
                             {"-2147483648", std::numeric_limits<int>::min()}};
  for (const Case& c : kCases) EXPECT_EQ(CStr::to_int(c.text), c.number) << c.text;
}

TEST(CStr, ToIntKeepsTheLowThirtyTwoBits) {
  if (std::numeric_limits<long>::digits != 63) GTEST_SKIP() << "long has no more than 32 bits here";
  EXPECT_EQ(CStr::to_int("4294967296"), 0);
  EXPECT_EQ(CStr::to_int("4294967299"), 3);
  EXPECT_EQ(CStr::to_int("2147483648"), std::numeric_limits<int>::min());
  EXPECT_EQ(CStr::to_int("9223372036854775807"), -1);
  EXPECT_EQ(CStr::to_int("99999999999999999999"), -1) << "the greatest long";
  EXPECT_EQ(CStr::to_int("-99999999999999999999"), 0) << "the least long";
}

}  // namespace
