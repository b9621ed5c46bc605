#include "utility/md5wrapper.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <fstream>
#include <string>

#include "faults.h"
#include "test_support.h"

namespace {

using test_support::Fault;
using test_support::grow_file;
using test_support::kTwoGib;
using test_support::ScopedFault;
using test_support::ScratchDirectory;
using test_support::write_file;
using utility::md5wrapper;

constexpr char kEmptyDigest[] = "d41d8cd98f00b204e9800998ecf8427e";
constexpr char kLowerCaseHexDigits[] = "0123456789abcdef";

std::string text_of(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * i + i / 251) % 256);
  return text;
}

TEST(Md5Wrapper, TheEmptyFileAndTheEmptyStringHaveTheDigestOfNothing) {
  const ScratchDirectory dir;
  write_file(dir / "empty", "");
  EXPECT_EQ(md5wrapper().getHashFromFile(dir / "empty"), kEmptyDigest);
  EXPECT_EQ(md5wrapper().getHashFromString(""), kEmptyDigest);
  EXPECT_EQ(md5wrapper().hashit(""), kEmptyDigest);
}

TEST(Md5Wrapper, AMissingFileGivesMinusOne) {
  const ScratchDirectory dir;
  EXPECT_EQ(md5wrapper().getHashFromFile(dir / "missing"), "-1");
  EXPECT_EQ(md5wrapper().getHashFromFile(dir / "missing/file"), "-1");
  EXPECT_EQ(md5wrapper().getHashFromFile(""), "-1");
}

TEST(Md5Wrapper, FilesAroundTheBlockSizesAreDigestedCompletely) {
  struct Case {
    std::size_t size;
    const char* digest;
  };
  // The output of md5sum for this many letters a.
  constexpr Case kCases[] = {
      {1, "0cc175b9c0f1b6a831c399e269772661"},     {63, "b06521f39153d618550606be297466d5"},
      {64, "014842d480b571495a4a0363793f7367"},    {65, "c743a45e0d2e6a95cb859adae0248435"},
      {1023, "e3e210ff5dfc9da789cdbee262348db6"},  {1024, "c9a34cfc85d982698c6ac89f76071abd"},
      {1025, "ae187e1febee2a150b64849c32d566ca"},  {65535, "22686eba65441cdc1795f276dcdd4e45"},
      {65536, "2d61aa54b58c2e94403fb092c3dbc027"}, {65537, "b3c6fc238e908636e53aabd5ad830cf7"},
      {300000, "92712d77c46f3ee77d7ac6caba4fe2ba"}};
  const ScratchDirectory dir;
  for (const Case& c : kCases) {
    const std::string contents(c.size, 'a');
    write_file(dir / "file", contents);
    EXPECT_EQ(md5wrapper().getHashFromFile(dir / "file"), c.digest) << c.size;
    EXPECT_EQ(md5wrapper().getHashFromString(contents), c.digest) << c.size;
  }
}

// Its length in bits does not fit into 32 bits, and it is longer than one update.
TEST(Md5Wrapper, AStringOfMoreThan512MibIsDigestedCompletely) {
  const std::string text((std::size_t{1} << 29) + 1, 'a');
  EXPECT_EQ(md5wrapper().getHashFromString(text), "078bda7798db94df0cbf9700c4029912");
}

TEST(Md5Wrapper, FilesAndStringsOfAnyBytesHaveTheSameDigest) {
  const ScratchDirectory dir;
  for (const std::size_t size : {0U, 1U, 63U, 64U, 65U, 1023U, 1024U, 1025U, 65537U, 200000U}) {
    const std::string contents = text_of(size);
    write_file(dir / "file", contents);
    EXPECT_EQ(md5wrapper().getHashFromFile(dir / "file"), md5wrapper().getHashFromString(contents))
        << size;
  }
}

TEST(Md5Wrapper, ZeroBytesInAStringCount) {
  EXPECT_EQ(md5wrapper().getHashFromString(std::string(1, '\0')),
            "93b885adfe0da089cdf634904fd59f71");
  EXPECT_EQ(md5wrapper().hashit(std::string("a\0b", 3)), "70350f6027bce3713f6b76473084309b");
}

TEST(Md5Wrapper, OneObjectGivesManyDigests) {
  md5wrapper wrapper;
  EXPECT_EQ(wrapper.getHashFromString("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(wrapper.getHashFromString("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(wrapper.getHashFromString("a"), "0cc175b9c0f1b6a831c399e269772661");
}

TEST(Md5Wrapper, EveryByteBecomesTwoLowerCaseDigits) {
  for (unsigned value = 0; value < 256; ++value) {
    std::array<unsigned char, 16> digest{};
    digest.fill(static_cast<unsigned char>(value));
    digest[15] = 0x0f;
    const std::string text = md5wrapper().convToString(digest.data());
    ASSERT_EQ(text.size(), 32U);
    EXPECT_EQ(text.find_first_not_of(kLowerCaseHexDigits), std::string::npos) << text;
    EXPECT_EQ(std::stoul(text.substr(0, 2), nullptr, 16), value);
    EXPECT_EQ(text.substr(30), "0f");
  }
}

TEST(Md5Wrapper, TheBytesKeepTheirOrder) {
  constexpr std::array<unsigned char, 16> kDigest = {0xd4, 0x1d, 0x8c, 0xd9, 0x8f, 0x00,
                                                     0xb2, 0x04, 0xe9, 0x80, 0x09, 0x98,
                                                     0xec, 0xf8, 0x42, 0x7e};
  EXPECT_EQ(md5wrapper().convToString(kDigest.data()), kEmptyDigest);
}

TEST(Md5Wrapper, AFileOver2GibIsOpened) {
  const ScratchDirectory dir;
  write_file(dir / "file", "a");
  grow_file(dir / "file", kTwoGib);
  const ScopedFault fault(Fault::kReadFails, 1);  // reading the whole file takes too long
  EXPECT_EQ(md5wrapper().getHashFromFile(dir / "file"), "0cc175b9c0f1b6a831c399e269772661");
}

TEST(Md5Wrapper, AFileOver2GibIsDigestedCompletely) {
#ifndef NDEBUG
  GTEST_SKIP() << "takes long without optimisation";
#endif
  if (!test_support::in_private_namespace())
    GTEST_SKIP() << "this host does not allow private mount namespaces";
  const std::string path = "/var/log/file";  // a file system in memory reads holes fastest
  write_file(path, "");
  grow_file(path, kTwoGib);
  std::ofstream(path, std::ios::app) << "end";
  EXPECT_EQ(md5wrapper().getHashFromFile(path),
            "6a1ec11900bf4bf6d15aaed82dbd1ec7");  // the output of md5sum
}

TEST(Md5Wrapper, AFileThatCannotBeReadHasTheDigestOfNothing) {
  const ScratchDirectory dir;  // a directory can be opened, but not read
  EXPECT_EQ(md5wrapper().getHashFromFile(dir.path()), kEmptyDigest);
}

TEST(Md5Wrapper, AReadErrorCountsAsTheEndOfTheFile) {
  const ScratchDirectory dir;
  const std::string contents = text_of(100000);
  write_file(dir / "file", contents);
  for (const std::size_t readable : {0U, 1U, 70000U}) {
    const ScopedFault fault(Fault::kReadFails, readable);
    EXPECT_EQ(md5wrapper().getHashFromFile(dir / "file"),
              md5wrapper().getHashFromString(contents.substr(0, readable)));
  }
}

TEST(Md5Wrapper, WithoutMemoryEveryDigestIsMinusOne) {
  const ScratchDirectory dir;
  write_file(dir / "file", "contents");
  const ScopedFault fault(Fault::kNoMemory);
  md5wrapper wrapper;
  EXPECT_EQ(wrapper.getHashFromFile(dir / "file"), "-1");
  EXPECT_EQ(wrapper.getHashFromString("text"), "-1");
  EXPECT_EQ(wrapper.hashit("text"), "-1");
}

TEST(Md5Wrapper, WithoutMemoryToReadInTheDigestOfAFileIsMinusOne) {
  const ScratchDirectory dir;
  write_file(dir / "file", "contents");
  md5wrapper wrapper;
  {
    const ScopedFault fault(Fault::kNoMemory);
    EXPECT_EQ(wrapper.getHashFromFile(dir / "file"), "-1");
  }
  EXPECT_NE(wrapper.getHashFromFile(dir / "file"), "-1");
}

}  // namespace
