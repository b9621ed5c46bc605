#include "log_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zlib.h>

#include <string>
#include <string_view>
#include <vector>

#include "test_support.h"

namespace {

using host::BackwardFile;
using host::LogReader;
using Lines = std::vector<std::string>;

class LogReaderTest : public testing::Test {
 protected:
  void write(const std::string& name, const std::string& text) {
    test_support::write_file(directory_ / name, text);
  }

  void write_compressed(const std::string& name, const std::string& text) {
    const gzFile file = gzopen((directory_ / name).c_str(), "wb");
    ASSERT_EQ(gzwrite(file, text.data(), static_cast<unsigned>(text.size())),
              static_cast<int>(text.size()));
    ASSERT_EQ(gzclose(file), Z_OK);
  }

  void set_time(const std::string& name, std::time_t time) {
    const timespec times[] = {{time, 0}, {time, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (directory_ / name).c_str(), times, 0), 0);
  }

  [[nodiscard]] LogReader reader(std::size_t limit = LogReader::kNoLimit) const {
    return LogReader(directory_ / "update.log", limit);
  }

  static Lines read(LogReader reader) {
    Lines lines;
    std::string_view line;
    while (reader.next(line)) lines.emplace_back(line);
    return lines;
  }

  test_support::ScratchDirectory directory_;
};

TEST_F(LogReaderTest, LinesComeNewestFirst) {
  write("update.log", "one\ntwo\n\nthree\n");
  EXPECT_EQ(read(reader()), (Lines{"three", "", "two", "one"}));
}

TEST_F(LogReaderTest, TheLastLineMayLackItsLineFeed) {
  write("update.log", "one\ntwo");
  EXPECT_EQ(read(reader()), (Lines{"two", "one"}));
}

TEST_F(LogReaderTest, EmptyFirstAndLastLinesAreLines) {
  write("update.log", "\n\none\n\n");
  EXPECT_EQ(read(reader()), (Lines{"", "one", "", ""}));
  write("update.log", "\n");
  EXPECT_EQ(read(reader()), (Lines{""}));
}

TEST_F(LogReaderTest, AnEmptyOrMissingLogHasNoLines) {
  EXPECT_EQ(read(reader()), Lines{});
  write("update.log", "");
  EXPECT_EQ(read(reader()), Lines{});
}

TEST_F(LogReaderTest, NulsSeparateLinesAndBelongToNone) {
  write("update.log", std::string("one\n\0\0two\0\0\0\nthree\n\0\0", 20));
  EXPECT_EQ(read(reader()), (Lines{"three", "two", "one"}));
  write("update.log", std::string(200000, '\0'));
  EXPECT_EQ(read(reader()), Lines{});
}

TEST_F(LogReaderTest, LinesOfAllLengthsCrossBlocks) {
  Lines expected;
  std::string text;
  for (std::size_t length = 0; length <= BackwardFile::kMaxLineBytes; length += 7) {
    expected.insert(expected.begin(), std::string(length, static_cast<char>('a' + length % 26)));
    text += expected.front() + "\n";
  }
  write("update.log", text);
  EXPECT_EQ(read(reader()), expected);
}

TEST_F(LogReaderTest, LinesThatAreTooLongAreSkipped) {
  const std::string longest(BackwardFile::kMaxLineBytes, 'x');
  for (const std::size_t extra : {1U, 70000U, 200000U}) {
    write("update.log", "one\n" + longest + std::string(extra, 'y') + "\ntwo\n" + longest + "\n");
    EXPECT_EQ(read(reader()), (Lines{longest, "two", "one"})) << extra;
    write("update.log", longest + std::string(extra, 'y') + "\nlast\n");
    EXPECT_EQ(read(reader()), (Lines{"last"})) << extra;
  }
}

TEST_F(LogReaderTest, RotatedLogsFollowNewestFirst) {
  write("update.log", "now\n");
  write("update.log.1", "one\n");
  write_compressed("update.log.2.gz", "two\n");
  write("update.log.10", "ten\n");
  write("update.log.old", "not rotated\n");
  write("update.logs.1", "another log\n");
  EXPECT_EQ(read(reader()), (Lines{"now", "one", "two", "ten"}));
}

TEST_F(LogReaderTest, LogsRotatedByDateFollowNewestFirst) {
  write("update.log-20251231", "older\n");
  write("update.log-20260131", "newer\n");
  write_compressed("update.log-20251201.gz", "oldest\n");
  EXPECT_EQ(read(reader()), (Lines{"newer", "older", "oldest"}));
}

TEST_F(LogReaderTest, OfTwoKindsOfRotationTheNewerOneComesFirst) {
  write("update.log.1", "counted\n");
  write("update.log-20260131", "dated\n");
  set_time("update.log.1", 1000);
  EXPECT_EQ(read(reader()), (Lines{"dated", "counted"}));
  set_time("update.log-20260131", 500);
  EXPECT_EQ(read(reader()), (Lines{"counted", "dated"}));
}

TEST_F(LogReaderTest, ALogThatIsBeingCompressedIsReadOnce) {
  write("update.log.1", "one\n");
  write_compressed("update.log.1.gz", "on");
  EXPECT_EQ(read(reader()), (Lines{"one"}));
}

TEST_F(LogReaderTest, ALogThatIsRotatedMeanwhileIsReadOnce) {
  write("update.log", "one\n");
  ASSERT_EQ(::link((directory_ / "update.log").c_str(), (directory_ / "update.log.1").c_str()), 0);
  EXPECT_EQ(read(reader()), (Lines{"one"}));
}

TEST_F(LogReaderTest, TheTimeOfWritingIsThatOfTheFileBeingRead) {
  write("update.log", "now\n");
  write_compressed("update.log.1.gz", "one\n");
  set_time("update.log", 2000);
  set_time("update.log.1.gz", 1000);
  LogReader log = reader();
  std::string_view line;
  ASSERT_TRUE(log.next(line));
  EXPECT_EQ(log.written(), 2000);
  ASSERT_TRUE(log.next(line));
  EXPECT_EQ(log.written(), 1000);
}

TEST_F(LogReaderTest, TheLimitCountsBytesOfAllFiles) {
  write("update.log", "1\n2\n3\n");
  write("update.log.1", "4\n5\n");
  LogReader log = reader(9);
  Lines lines;
  std::string_view line;
  while (log.next(line)) lines.emplace_back(line);
  EXPECT_EQ(lines, (Lines{"3", "2", "1", "5"}));
  EXPECT_TRUE(log.limit_reached());
}

TEST_F(LogReaderTest, ALimitThatIsNotReachedIsNotReported) {
  write("update.log", "1\n2\n");
  LogReader log = reader(4);
  std::string_view line;
  while (log.next(line)) {
  }
  EXPECT_FALSE(log.limit_reached());
}

TEST_F(LogReaderTest, ACompressedLogIsReadOnlyAsAWhole) {
  write("update.log", "1\n");
  write_compressed("update.log.1.gz", "2\n3\n");
  EXPECT_EQ(read(reader(6)), (Lines{"1", "3", "2"}));
  LogReader log = reader(5);
  std::string_view line;
  ASSERT_TRUE(log.next(line));
  EXPECT_FALSE(log.next(line));
  EXPECT_TRUE(log.limit_reached());
}

TEST_F(LogReaderTest, WhatCannotBeReadIsNamed) {
  ASSERT_EQ(::mkdir((directory_ / "update.log").c_str(), 0755), 0);
  write("update.log.1.gz", "\x1f\x8b damaged");
  LogReader log = reader();
  std::string_view line;
  EXPECT_FALSE(log.next(line));
  EXPECT_EQ(log.unreadable(), (Lines{directory_ / "update.log", directory_ / "update.log.1.gz"}));
}

}  // namespace
