#include "utility/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "faults.h"
#include "test_support.h"
#include "utility/string_list.h"

namespace {

using test_support::end_of;
using test_support::Fault;
using test_support::FileMount;
using test_support::grow_file;
using test_support::Interruptions;
using test_support::kTwoGib;
using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::ScopedFault;
using test_support::ScopedUmask;
using test_support::ScratchDirectory;
using test_support::size_of;
using test_support::SmallDisk;
using test_support::write_file;
using utility::CopyResult;
using utility::Descriptor;

constexpr std::size_t kDiskBytes = 65536;

std::string text_of(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * i + i / 251) % 256);
  return text;
}

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

bool is_link(const std::string& path) {
  struct stat status = {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

int open_null() { return ::open("/dev/null", O_RDWR | O_CLOEXEC); }

/// A test with an empty directory.
class File : public testing::Test {
 protected:
  [[nodiscard]] CopyResult copy(const std::string& source, const std::string& target) const {
    return utility::copy_file((dir_ / source).c_str(), (dir_ / target).c_str());
  }

  ScratchDirectory dir_;
};

/// A pipe between two threads. Signals interrupt only the thread of the test.
class Pipe : public testing::Test {
 protected:
  Pipe() {
    std::array<int, 2> ends = {-1, -1};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    read_end_.emplace(ends[0]);
    write_end_.emplace(ends[1]);
  }

  template <typename Body>
  static std::thread uninterrupted_thread(Body body) {
    sigset_t alarm;
    (void)::sigemptyset(&alarm);
    (void)::sigaddset(&alarm, SIGALRM);
    (void)::pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    std::thread thread(body);
    (void)::pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    return thread;
  }

  std::optional<Descriptor> read_end_;
  std::optional<Descriptor> write_end_;
};

TEST_F(File, ExistsFollowsSymbolicLinks) {
  write_file(dir_ / "file", "");
  ASSERT_EQ(::symlink("file", (dir_ / "link").c_str()), 0);
  ASSERT_EQ(::symlink("nothing", (dir_ / "dangling").c_str()), 0);
  EXPECT_TRUE(utility::exists(dir_ / "file"));
  EXPECT_TRUE(utility::exists(dir_.path()));
  EXPECT_TRUE(utility::exists(dir_ / "link"));
  EXPECT_FALSE(utility::exists(dir_ / "dangling"));
  EXPECT_FALSE(utility::exists(dir_ / "missing"));
  EXPECT_FALSE(utility::exists(dir_ / "file/below"));
  EXPECT_FALSE(utility::exists(""));
}

TEST(Descriptor, ClosesWhatItOwns) {
  int fd = -1;
  {
    const Descriptor owner(open_null());
    fd = owner.get();
    EXPECT_TRUE(owner);
    EXPECT_TRUE(is_open(fd));
  }
  EXPECT_FALSE(is_open(fd));
}

TEST(Descriptor, OwnsNothingAfterAMove) {
  Descriptor first(open_null());
  const int fd = first.get();
  {
    const Descriptor second(std::move(first));
    EXPECT_EQ(second.get(), fd);
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): the moved-from state is tested
  }
  EXPECT_FALSE(is_open(fd));
}

TEST(Descriptor, ClosesOnce) {
  Descriptor owner(open_null());
  const int fd = owner.get();
  EXPECT_TRUE(owner.close());
  EXPECT_FALSE(owner);
  EXPECT_FALSE(is_open(fd));
  EXPECT_TRUE(owner.close()) << "there is nothing to close";
  EXPECT_TRUE(Descriptor(-1).close());
}

TEST(Descriptor, ReportsAFailedOpen) { EXPECT_FALSE(Descriptor(::open("", O_RDONLY))); }

TEST(Descriptor, ReportsAFailedClose) {
  EXPECT_FALSE(Descriptor(::dup(-1))) << "dup failed";
  const int fd = open_null();
  Descriptor owner(fd);
  ASSERT_EQ(::close(fd), 0);
  EXPECT_FALSE(owner.close());
}

TEST_F(Pipe, ReadingReturnsTheAvailableBytes) {
  ASSERT_EQ(utility::write_all(write_end_->get(), "abc", 3), 3U);
  std::array<char, 8> block{};
  EXPECT_EQ(utility::read_some(read_end_->get(), block.data(), 2), 2);
  EXPECT_EQ(utility::read_some(read_end_->get(), block.data(), block.size()), 1);
  EXPECT_EQ(block[0], 'c');
  write_end_.reset();
  EXPECT_EQ(utility::read_some(read_end_->get(), block.data(), block.size()), 0) << "at the end";
}

TEST_F(Pipe, ReadingContinuesAfterInterruptions) {
  const Interruptions interruptions;
  std::thread writer = uninterrupted_thread([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    (void)utility::write_all(write_end_->get(), "abc", 3);
  });
  std::array<char, 8> block{};
  EXPECT_EQ(utility::read_some(read_end_->get(), block.data(), block.size()), 3);
  EXPECT_GT(Interruptions::count(), 0);
  writer.join();
}

TEST_F(File, ReadingReportsErrors) {
  std::array<char, 8> block{};
  const Descriptor directory(::open(dir_.path().c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(utility::read_some(directory.get(), block.data(), block.size()), -1);
  EXPECT_EQ(errno, EISDIR);
}

TEST_F(Pipe, WritingContinuesAfterShortWritesAndInterruptions) {
  const std::string text = text_of(std::size_t{512} * 1024);  // more than fits into a pipe
  std::string received;
  std::thread reader = uninterrupted_thread([&] {
    std::array<char, 4096> block{};
    for (;;) {
      const ssize_t count = ::read(read_end_->get(), block.data(), block.size());
      if (count <= 0) return;
      received.append(block.data(), static_cast<std::size_t>(count));
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  {
    const Interruptions interruptions;
    EXPECT_EQ(utility::write_all(write_end_->get(), text.data(), text.size()), text.size());
    EXPECT_GT(Interruptions::count(), 0);
  }
  write_end_.reset();
  reader.join();
  EXPECT_TRUE(received == text);
}

TEST_F(Pipe, WritingEndsAtAnErrorAndReturnsTheBytesWritten) {
  ASSERT_EQ(::fcntl(write_end_->get(), F_SETFL, O_NONBLOCK), 0);
  const int capacity = ::fcntl(write_end_->get(), F_GETPIPE_SZ);
  ASSERT_GT(capacity, 0);
  const std::string text = text_of(static_cast<std::size_t>(capacity) + 1);
  EXPECT_EQ(utility::write_all(write_end_->get(), text.data(), text.size()),
            static_cast<std::size_t>(capacity));
  EXPECT_EQ(utility::write_all(write_end_->get(), "more", 4), 0U);
  EXPECT_EQ(utility::write_all(write_end_->get(), "", 0), 0U);
  EXPECT_EQ(utility::write_all(-1, "text", 4), 0U);
}

TEST_F(File, CopiesHaveTheContentsOfTheSource) {
  for (const std::size_t size : {0U, 1U, 1023U, 1024U, 1025U, 131071U, 131072U, 131073U, 400000U}) {
    write_file(dir_ / "source", text_of(size));
    EXPECT_EQ(copy("source", "target"), CopyResult::kCopied);
    EXPECT_TRUE(read_file(dir_ / "target") == text_of(size)) << size;
    EXPECT_TRUE(read_file(dir_ / "source") == text_of(size)) << size;
  }
}

TEST_F(File, ACopyReplacesTheOldTarget) {
  write_file(dir_ / "source", "new");
  write_file(dir_ / "target", "old and longer");
  EXPECT_EQ(copy("source", "target"), CopyResult::kCopied);
  EXPECT_EQ(read_file(dir_ / "target"), "new");
}

TEST_F(File, ACopyHasThePermissionsOfANewFile) {
  write_file(dir_ / "source", "program");
  write_file(dir_ / "target", "old");
  ASSERT_EQ(::chmod((dir_ / "source").c_str(), 04755), 0);
  ASSERT_EQ(::chmod((dir_ / "target").c_str(), 0711), 0);
  for (const auto& [mask, mode] : {std::pair(0U, 0666U), std::pair(007U, 0660U)}) {
    const ScopedUmask umask(mask);
    EXPECT_EQ(copy("source", "target"), CopyResult::kCopied);
    EXPECT_EQ(mode_of(dir_ / "target"), mode);
  }
}

TEST_F(File, ACopyReplacesALinkAndNotItsTarget) {
  write_file(dir_ / "source", "new");
  write_file(dir_ / "file", "untouched");
  ASSERT_EQ(::symlink("file", (dir_ / "target").c_str()), 0);
  EXPECT_EQ(copy("source", "target"), CopyResult::kCopied);
  EXPECT_FALSE(is_link(dir_ / "target"));
  EXPECT_EQ(read_file(dir_ / "file"), "untouched");
}

TEST_F(File, ACopyToADanglingLinkCreatesItsTarget) {
  write_file(dir_ / "source", "new");
  ASSERT_EQ(::symlink("file", (dir_ / "target").c_str()), 0);
  EXPECT_EQ(copy("source", "target"), CopyResult::kCopied);
  EXPECT_TRUE(is_link(dir_ / "target"));
  EXPECT_EQ(read_file(dir_ / "file"), "new");
}

TEST_F(File, ACopyNeverWritesIntoAFileThatAppearsMeanwhile) {
  write_file(dir_ / "source", "new");
  write_file(dir_ / "target", "of another run");
  const test_support::ScopedFault fault(test_support::Fault::kAccessFails);
  EXPECT_EQ(copy("source", "target"), CopyResult::kFailed);
  EXPECT_EQ(read_file(dir_ / "target"), "of another run");
}

TEST_F(File, WithAMissingSourceTheOldTargetIsLost) {
  write_file(dir_ / "target", "old");
  EXPECT_EQ(copy("missing", "target"), CopyResult::kFailed);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_F(File, ACopyIntoAMissingDirectoryFails) {
  write_file(dir_ / "source", "new");
  EXPECT_EQ(copy("source", "missing/target"), CopyResult::kFailed);
  EXPECT_EQ(names_in(dir_.path()), (string_list{"source"}));
}

TEST_F(File, ATargetThatCannotBeDeletedIsLeftAlone) {
  write_file(dir_ / "source", "new");
  ASSERT_EQ(::mkdir((dir_ / "directory").c_str(), 0755), 0);
  EXPECT_EQ(copy("source", "directory"), CopyResult::kFailed);
  EXPECT_EQ(names_in(dir_.path()), (string_list{"directory", "source"}));

  write_file(dir_ / "busy", "old");
  const FileMount mount(dir_ / "busy", dir_ / "busy");
  if (!mount.mounted()) GTEST_SKIP() << "this host does not allow private mount namespaces";
  EXPECT_EQ(copy("source", "busy"), CopyResult::kFailed);
  EXPECT_EQ(read_file(dir_ / "busy"), "old");
}

TEST_F(File, AReadErrorGivesEverythingBeforeIt) {
  ASSERT_EQ(::mkdir((dir_ / "directory").c_str(), 0755), 0);
  EXPECT_EQ(copy("directory", "target"), CopyResult::kReadFailed);
  EXPECT_EQ(read_file(dir_ / "target"), "");

  write_file(dir_ / "source", text_of(300000));
  {
    const ScopedFault fault(Fault::kReadFails, 200000);
    EXPECT_EQ(copy("source", "target"), CopyResult::kReadFailed);
  }
  EXPECT_TRUE(read_file(dir_ / "target") == text_of(200000));
}

TEST_F(File, AFullDiskEndsTheCopyAndLeavesNoPartialFile) {
  ASSERT_EQ(::mkdir((dir_ / "disk").c_str(), 0755), 0);
  const SmallDisk disk(dir_ / "disk", kDiskBytes);
  if (!disk.mounted()) GTEST_SKIP() << "this host does not allow private mount namespaces";
  write_file(dir_ / "source", text_of(kDiskBytes + 1));
  write_file(dir_ / "disk/target", "old");
  EXPECT_EQ(copy("source", "disk/target"), CopyResult::kFailed);
  EXPECT_EQ(names_in(dir_ / "disk"), string_list());

  write_file(dir_ / "source", text_of(kDiskBytes));
  EXPECT_EQ(copy("source", "disk/target"), CopyResult::kCopied) << "it just fits";
}

TEST_F(File, AnErrorReportedByCloseFailsTheCopy) {
  write_file(dir_ / "source", "new");
  {
    const ScopedFault fault(Fault::kCloseFails);
    EXPECT_EQ(copy("source", "target"), CopyResult::kFailed);
  }
  EXPECT_EQ(names_in(dir_.path()), (string_list{"source"}));
  EXPECT_EQ(copy("source", "target"), CopyResult::kCopied) << "without the fault";
}

TEST_F(File, WithoutMemoryNothingIsChanged) {
  write_file(dir_ / "source", "new");
  write_file(dir_ / "target", "old");
  {
    const ScopedFault fault(Fault::kNoMemory);
    EXPECT_EQ(copy("source", "target"), CopyResult::kFailed);
  }
  EXPECT_EQ(read_file(dir_ / "target"), "old");
  EXPECT_EQ(copy("source", "target"), CopyResult::kCopied) << "without the fault";
}

TEST_F(File, ACopyLeavesNoFileOpen) {
  write_file(dir_ / "source", "new");
  const Descriptor before(open_null());
  EXPECT_EQ(copy("source", "target"), CopyResult::kCopied);
  EXPECT_EQ(copy("source", "missing/target"), CopyResult::kFailed);
  EXPECT_EQ(copy("missing", "target"), CopyResult::kFailed);
  EXPECT_EQ(copy(".", "target"), CopyResult::kReadFailed);
  const Descriptor after(open_null());
  EXPECT_EQ(after.get(), before.get() + 1);
}

TEST_F(File, ASourceOver2GibIsOpened) {
  write_file(dir_ / "source", "begin");
  grow_file(dir_ / "source", kTwoGib);
  const ScopedFault fault(Fault::kReadFails, 5);  // copying the whole file would take too long
  EXPECT_EQ(copy("source", "target"), CopyResult::kReadFailed);
  EXPECT_EQ(size_of(dir_ / "target"), 5);
}

TEST_F(File, ACopyContinuesBeyond2Gib) {
  ASSERT_EQ(::mkfifo((dir_ / "source").c_str(), 0600), 0);
  std::thread writer([this] {
    const Descriptor source(::open((dir_ / "source").c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(utility::write_all(source.get(), "begin", 5), 5U);
    for (int waited = 0; size_of(dir_ / "target") < 5 && waited < 5000; ++waited) ::usleep(1000);
    grow_file(dir_ / "target", kTwoGib - 1);  // a hole: writing all bytes takes too long
    EXPECT_EQ(utility::write_all(source.get(), "end", 3), 3U);
  });
  EXPECT_EQ(copy("source", "target"), CopyResult::kCopied);
  writer.join();
  EXPECT_EQ(size_of(dir_ / "target"), kTwoGib + 2);
  EXPECT_EQ(end_of(dir_ / "target", 3), "end");
}

TEST_F(File, TheFirstLineKeepsItsLineFeed) {
  write_file(dir_ / "file", "first\nsecond\n");
  EXPECT_EQ(utility::read_first_line(dir_ / "file", 100), "first\n");
  write_file(dir_ / "file", "only");
  EXPECT_EQ(utility::read_first_line(dir_ / "file", 100), "only");
  write_file(dir_ / "file", "\nsecond");
  EXPECT_EQ(utility::read_first_line(dir_ / "file", 100), "\n");
  write_file(dir_ / "file", " blanks \r\n");
  EXPECT_EQ(utility::read_first_line(dir_ / "file", 100), " blanks \r\n");
}

TEST_F(File, TheFirstLineIsReadToOneByteBelowTheLimit) {
  write_file(dir_ / "file", "12345678\n");
  EXPECT_EQ(utility::read_first_line(dir_ / "file", 8), "1234567");
  EXPECT_EQ(utility::read_first_line(dir_ / "file", 9), "12345678");
  EXPECT_EQ(utility::read_first_line(dir_ / "file", 10), "12345678\n");
}

TEST_F(File, TheFirstLineEndsAtAZeroByte) {
  write_file(dir_ / "file", std::string("ab\0cd\nef\n", 9));
  EXPECT_EQ(utility::read_first_line(dir_ / "file", 100), "ab");
}

TEST_F(File, OnlyAFileThatCannotBeReadHasNoFirstLine) {
  EXPECT_EQ(utility::read_first_line(dir_ / "missing", 100), std::nullopt);
  write_file(dir_ / "empty", "");
  EXPECT_EQ(utility::read_first_line(dir_ / "empty", 100), "");
  EXPECT_EQ(utility::read_first_line(dir_.path(), 100), std::nullopt) << "opens, but is no file";
}

string_list read_all_lines(const std::string& path, int limit) {
  utility::LineReader reader(path, limit);
  EXPECT_TRUE(reader);
  string_list lines;
  std::string line;
  while (reader.next(line)) lines.push_back(line);
  return lines;
}

TEST_F(File, LinesAreReadWithoutTheirLineFeeds) {
  write_file(dir_ / "file", "first\n\n third \r\nlast");
  EXPECT_EQ(read_all_lines(dir_ / "file", 100), (string_list{"first", "", " third \r", "last"}));
}

TEST_F(File, ALineBeyondTheLimitIsReadInPieces) {
  write_file(dir_ / "file", "1234567\n12345678\n");
  EXPECT_EQ(read_all_lines(dir_ / "file", 5), (string_list{"1234", "567", "1234", "5678", ""}));
}

TEST_F(File, ALineEndsAtAZeroByte) {
  write_file(dir_ / "file", std::string("ab\0cd\nef\n", 9));
  EXPECT_EQ(read_all_lines(dir_ / "file", 100), (string_list{"ab", "ef"}));
}

TEST_F(File, AFileOver2GibHasLines) {
  write_file(dir_ / "file", "first\nsecond\n");
  grow_file(dir_ / "file", kTwoGib);
  EXPECT_EQ(utility::read_first_line(dir_ / "file", 100), "first\n");
  utility::LineReader reader(dir_ / "file", 100);
  std::string line;
  EXPECT_TRUE(reader.next(line));
  EXPECT_TRUE(reader.next(line));
  EXPECT_EQ(line, "second");
}

TEST_F(File, AnEmptyFileHasNoLinesAndAMissingOneCannotBeOpened) {
  write_file(dir_ / "file", "");
  EXPECT_EQ(read_all_lines(dir_ / "file", 100), string_list());
  utility::LineReader missing(dir_ / "missing", 100);
  EXPECT_FALSE(missing);
  std::string line = "unchanged";
  EXPECT_FALSE(missing.next(line));
  EXPECT_EQ(line, "unchanged");
}

TEST(LineFeed, OneIsRemovedFromTheEnd) {
  const std::pair<std::string, std::string> kCases[] = {
      {"text\n", "text"},     {"text\n\n", "text\n"}, {"text", "text"}, {"\ntext", "\ntext"},
      {"text\r\n", "text\r"}, {"text\n ", "text\n "}, {"\n", ""},       {"", ""}};
  for (const auto& [before, after] : kCases) {
    std::string text = before;
    utility::remove_line_feed(text);
    EXPECT_EQ(text, after);
  }
}

TEST_F(File, AWorkDirectoryHasNoSearchBit) {
  const ScopedUmask umask(0);
  utility::make_work_dir(dir_ / "work");
  EXPECT_EQ(mode_of(dir_ / "work"), 0644U);
}

TEST_F(File, AWorkDirectoryRespectsTheUmask) {
  const ScopedUmask umask(077);
  utility::make_work_dir(dir_ / "work");
  EXPECT_EQ(mode_of(dir_ / "work"), 0600U);
}

TEST_F(File, AWorkDirectoryThatExistsIsKept) {
  ASSERT_EQ(::mkdir((dir_ / "work").c_str(), 0700), 0);
  write_file(dir_ / "work/file", "kept");
  utility::make_work_dir(dir_ / "work");
  EXPECT_EQ(mode_of(dir_ / "work"), 0700U);
  EXPECT_EQ(read_file(dir_ / "work/file"), "kept");
}

TEST_F(File, AWorkDirectoryThatCannotBeCreatedIsMissing) {
  utility::make_work_dir(dir_ / "missing/work");
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

}  // namespace
