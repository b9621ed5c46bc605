#include "url_op.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "faults.h"
#include "http_server.h"
#include "test_support.h"
#include "utility/file.h"
#include "utility/string_list.h"

namespace {

using test_support::end_of;
using test_support::exists;
using test_support::Fault;
using test_support::FileMount;
using test_support::grow_file;
using test_support::HttpServer;
using test_support::kTwoGib;
using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::run_in_child;
using test_support::ScopedFault;
using test_support::ScopedUmask;
using test_support::ScratchDirectory;
using test_support::size_of;
using test_support::SmallDisk;
using test_support::write_file;

constexpr char kNoNamespaces[] = "this host does not allow private mount namespaces";
constexpr char kOldContents[] = "old contents, longer than what replaces them\n";
constexpr std::size_t kDiskBytes = 65536;

std::vector<CURLoption> options_set;

string_list failure_with(int code) {
  return {"CUrlOp::url_down_file: curl_easy_perform failed[" + std::to_string(code) + "]"};
}

/// A complete reply with these pieces as chunks, which the client receives separately.
std::string chunked_reply(const std::vector<std::string>& pieces) {
  std::string reply = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (const std::string& piece : pieces) {
    char size[16] = {};
    (void)std::snprintf(size, sizeof size, "%zx\r\n", piece.size());
    reply += size + piece + "\r\n";
  }
  return reply + "0\r\n\r\n";
}

/// Downloads from a scripted server into a file of the agent.
class Download : public test_support::AgentTest {
 protected:
  [[nodiscard]] std::string target() const { return agent("file"); }

  /// Downloads the server's "/file".
  [[nodiscard]] int download() const { return download(server_.url("/file")); }

  [[nodiscard]] int download(const std::string& url) const {
    return CUrlOp::url_down_file(url.c_str(), target().c_str());
  }

  HttpServer server_;
};

}  // namespace

// Replaces the library's function in this program, and records the option.
#undef curl_easy_setopt
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs"  // the header has an enumeration before "...", too
extern "C" CURLcode curl_easy_setopt(CURL* curl, CURLoption option, ...) {
  using Setopt = CURLcode (*)(CURL*, CURLoption, ...);
  static const auto real_setopt = reinterpret_cast<Setopt>(::dlsym(RTLD_NEXT, "curl_easy_setopt"));
  std::va_list arguments;
  va_start(arguments, option);
  void* const value = va_arg(arguments, void*);  // or a long, which has the same size
  va_end(arguments);
  options_set.push_back(option);
  return real_setopt(curl, option, value);
}
#pragma GCC diagnostic pop

namespace {

TEST_F(Download, TheBodyBecomesTheFile) {
  const std::string body("line\r\n\0\xff binary\n", 16);
  server_.reply("/file", body);
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(read_file(target()), body);
  EXPECT_EQ(log_messages(), string_list());
}

TEST_F(Download, ATargetThatExistsIsReplacedNotAppendedTo) {
  write_file(target(), kOldContents);
  server_.reply("/file", "new\n");
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(read_file(target()), "new\n");
}

TEST_F(Download, TheRequestHasTheLibrarysDefaultHeaders) {
  server_.reply("/file", "new\n");
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(server_.raw_requests(),
            (string_list{"GET /file HTTP/1.1\r\nHost: " + server_.host() + "\r\nAccept: */*"}));
}

TEST_F(Download, TheBodyOfAnErrorStatusIsSavedAsASuccess) {
  for (const int status : {400, 403, 404, 500, 503}) {
    const std::string body = "error page of status " + std::to_string(status);
    server_.reply("/file", body, status);
    EXPECT_EQ(download(), 0) << status;
    EXPECT_EQ(read_file(target()), body);
  }
  EXPECT_EQ(log_messages(), string_list());
}

TEST_F(Download, ARedirectIsNotFollowed) {
  server_.reply("/new", "new place");
  server_.reply_raw("/file", "HTTP/1.1 302 Found\r\nLocation: " + server_.url("/new") +
                                 "\r\nContent-Length: 5\r\n\r\nmoved");
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(read_file(target()), "moved");
  EXPECT_EQ(server_.requests(), (string_list{"GET /file"}));
}

TEST_F(Download, AnEmptyBodyLeavesNoFile) {
  write_file(target(), kOldContents);
  server_.reply("/file", "");
  EXPECT_EQ(download(), 0);
  EXPECT_FALSE(exists(target()));
  EXPECT_EQ(log_messages(), string_list());
}

TEST_F(Download, ABodyInManyPiecesIsJoined) {
  std::vector<std::string> pieces;
  std::string whole;
  for (int i = 0; i < 1000; ++i) {
    pieces.push_back(std::to_string(i) + "\n");
    whole += pieces.back();
  }
  server_.reply_raw("/file", chunked_reply(pieces));
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(read_file(target()), whole);
}

TEST_F(Download, ALargeBodyIsComplete) {
  std::string body(std::size_t{2} * 1024 * 1024 + 1, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i % 251);
  server_.reply("/file", body);
  EXPECT_EQ(download(), 0);
  EXPECT_TRUE(read_file(target()) == body);
}

TEST_F(Download, ABodyThatEndsWithTheConnectionIsComplete) {
  server_.reply_raw("/file", "HTTP/1.0 200 OK\r\n\r\nbody");
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(read_file(target()), "body");
}

TEST_F(Download, EachFileHasItsOwnRequest) {
  server_.reply("/file", "first");
  EXPECT_EQ(download(), 0);
  server_.reply("/file", "second");
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(read_file(target()), "second");
  EXPECT_EQ(server_.requests(), (string_list{"GET /file", "GET /file"}));
}

TEST_F(Download, ATruncatedBodyFailsAndLeavesItsPart) {
  server_.reply_raw("/file", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart");
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(log_messages(), failure_with(CURLE_PARTIAL_FILE));
  EXPECT_EQ(read_file(target()), "part");
}

TEST_F(Download, AConnectionWithoutAReplyFails) {
  write_file(target(), kOldContents);
  server_.reply_raw("/file", "");
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(log_messages(), failure_with(CURLE_GOT_NOTHING));
  EXPECT_FALSE(exists(target())) << "the old file is deleted first";
}

TEST_F(Download, AResetConnectionFails) {
  server_.reply_raw("/file", "", HttpServer::End::kReset);
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(log_messages(), failure_with(CURLE_RECV_ERROR));
}

TEST_F(Download, ARefusedConnectionFailsWithCode7) {
  const utility::Descriptor silent(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};  // a port that is bound, but not listened on
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const any_address = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(::bind(silent.get(), any_address, size), 0);
  ASSERT_EQ(::getsockname(silent.get(), any_address, &size), 0);
  EXPECT_EQ(download("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/file"), -1);
  EXPECT_EQ(log_messages(), (string_list{"CUrlOp::url_down_file: curl_easy_perform failed[7]"}));
}

TEST_F(Download, AnImpossibleUrlFails) {
  EXPECT_EQ(download(""), -1);
  EXPECT_EQ(download("nonsense://host/file"), -1);
  string_list expected = failure_with(CURLE_URL_MALFORMAT);
  expected.push_back(failure_with(CURLE_UNSUPPORTED_PROTOCOL)[0]);
  EXPECT_EQ(log_messages(), expected);
}

TEST_F(Download, AMissingDirectoryFailsWithCode23) {
  server_.reply("/file", "new\n");
  const std::string path = agent("missing/file");
  EXPECT_EQ(CUrlOp::url_down_file(server_.url("/file").c_str(), path.c_str()), -1);
  EXPECT_EQ(log_messages(), (string_list{"CUrlOp::url_down_file: curl_easy_perform failed[23]"}));
}

TEST_F(Download, AnOldTargetThatCannotBeDeletedIsNotAnErrorByItself) {
  server_.reply("/file", "new\n");
  ASSERT_EQ(::mkdir(target().c_str(), 0755), 0);
  EXPECT_EQ(download(), -1) << "a directory cannot be written";
  EXPECT_EQ(log_messages(), failure_with(CURLE_WRITE_ERROR));
  ASSERT_EQ(::rmdir(target().c_str()), 0);

  write_file(target(), "old\n");
  const FileMount mount(target(), target());
  ASSERT_TRUE(mount.mounted());
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(read_file(target()), "old\nnew\n") << "the download is appended to the old file";
}

TEST_F(Download, AFullDiskFailsWithCode23AndLeavesThePartThatFits) {
  ASSERT_EQ(::mkdir(agent("disk").c_str(), 0755), 0);
  const SmallDisk disk(agent("disk"), kDiskBytes);
  ASSERT_TRUE(disk.mounted());
  server_.reply("/file", std::string(2 * kDiskBytes, 'a'));
  const std::string path = agent("disk/file");
  EXPECT_EQ(CUrlOp::url_down_file(server_.url("/file").c_str(), path.c_str()), -1);
  EXPECT_EQ(log_messages(), failure_with(CURLE_WRITE_ERROR));
  EXPECT_EQ(read_file(path), std::string(kDiskBytes, 'a'));
}

TEST_F(Download, AnErrorReportedByCloseFailsWithCode23) {
  server_.reply("/file", "new\n");
  {
    const ScopedFault fault(Fault::kCloseFails);
    EXPECT_EQ(download(), -1);
  }
  EXPECT_EQ(log_messages(), failure_with(CURLE_WRITE_ERROR));
}

TEST_F(Download, OnlyTheAddressTheFileAndIpv4AreSetSoThereIsNoTimeout) {
  server_.reply("/file", "new\n");
  options_set.clear();
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(options_set, (std::vector<CURLoption>{CURLOPT_URL, CURLOPT_WRITEFUNCTION,
                                                  CURLOPT_WRITEDATA, CURLOPT_IPRESOLVE}));
}

TEST_F(Download, AServerThatNeverAnswersBlocksTheRun) {
  server_.reply_raw("/file", "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\npart",
                    HttpServer::End::kHold);
  const pid_t run = ::fork();
  ASSERT_GE(run, 0);
  if (run == 0) {
    (void)::alarm(20);
    ::_exit(download() == 0 ? 0 : 1);
  }
  EXPECT_TRUE(server_.wait_for_requests(1));
  (void)::usleep(100000);
  EXPECT_EQ(::waitpid(run, nullptr, WNOHANG), 0) << "it has ended";
  (void)::kill(run, SIGKILL);
  EXPECT_EQ(::waitpid(run, nullptr, 0), run);
  EXPECT_EQ(log_messages(), string_list());
}

TEST_F(Download, AHostNameWithOnlyAnIpv6AddressDoesNotResolve) {
  if (!exists("/etc/hosts") || !exists("/etc/nsswitch.conf"))
    GTEST_SKIP() << "this host has no files that names are resolved by";
  // From the discard-only prefix: the C library treats ::1 as an IPv4 address, too.
  write_file(agent("hosts"), "100::6 six.norvak.test\n127.0.0.1 four.norvak.test\n");
  write_file(agent("nsswitch.conf"), "hosts: files\n");
  const FileMount hosts(agent("hosts"), "/etc/hosts");
  const FileMount services(agent("nsswitch.conf"), "/etc/nsswitch.conf");
  ASSERT_TRUE(hosts.mounted() && services.mounted());
  server_.reply("/file", "new\n");
  const std::string port = server_.host().substr(server_.host().find(':'));

  EXPECT_EQ(download("http://four.norvak.test" + port + "/file"), 0);
  EXPECT_EQ(log_messages(), string_list());
  EXPECT_EQ(download("http://six.norvak.test" + port + "/file"), -1);
  EXPECT_EQ(log_messages(), failure_with(CURLE_COULDNT_RESOLVE_HOST));
}

bool memory_is_out = false;

void* allocate(std::size_t size) { return memory_is_out ? nullptr : std::malloc(size); }
void* allocate_zeroed(std::size_t count, std::size_t size) {
  return memory_is_out ? nullptr : std::calloc(count, size);
}
void* reallocate(void* block, std::size_t size) {
  return memory_is_out ? nullptr : std::realloc(block, size);
}
char* duplicate(const char* text) { return memory_is_out ? nullptr : ::strdup(text); }

TEST_F(Download, WithoutAHandleTheDownloadFails) {
  write_file(target(), kOldContents);
  EXPECT_EQ(run_in_child([this] {
              curl_global_cleanup();  // an earlier test may have initialised the library
              ASSERT_EQ(curl_global_init_mem(CURL_GLOBAL_ALL, allocate, std::free, reallocate,
                                             duplicate, allocate_zeroed),
                        CURLE_OK);
              memory_is_out = true;
              EXPECT_EQ(download(), -1);
            }),
            0);
  EXPECT_EQ(log_messages(), (string_list{"CUrlOp::url_down_file: init easy_handle failed"}));
  EXPECT_FALSE(exists(target())) << "the old file is deleted first";
  EXPECT_EQ(server_.requests(), string_list());
}

// The steps of a download.

/// A test with an empty directory.
class DownloadStep : public testing::Test {
 protected:
  /// The result of the write callback for @a count items of @a size bytes and the file @a name.
  std::size_t write(const std::string& name, std::string data, std::size_t size,
                    std::size_t count) const {
    std::string path = dir_ / name;
    return CUrlOp::write_to_file(data.data(), size, count, path.data());
  }

  ScratchDirectory dir_;
};

TEST_F(DownloadStep, WritingAppendsEachPieceToTheFile) {
  EXPECT_EQ(write("file", "abc", 1, 3), 3U);
  EXPECT_EQ(write("file", "de", 1, 2), 2U);
  EXPECT_EQ(read_file(dir_ / "file"), "abcde");
}

TEST_F(DownloadStep, WritingOpensTheFileForEachPiece) {
  EXPECT_EQ(write("file", "abc", 1, 3), 3U);
  ASSERT_EQ(::unlink((dir_ / "file").c_str()), 0);
  EXPECT_EQ(write("file", "de", 1, 2), 2U);
  EXPECT_EQ(read_file(dir_ / "file"), "de");
}

TEST_F(DownloadStep, WritingAppendsBeyond2Gib) {
  write_file(dir_ / "file", "");
  grow_file(dir_ / "file", kTwoGib - 1);
  EXPECT_EQ(write("file", "abc", 1, 3), 3U);
  EXPECT_EQ(write("file", "de", 1, 2), 2U);
  EXPECT_EQ(size_of(dir_ / "file"), kTwoGib + 4);
  EXPECT_EQ(end_of(dir_ / "file", 5), "abcde");
}

TEST_F(DownloadStep, WritingCountsItems) {
  EXPECT_EQ(write("file", "abcdef", 2, 3), 3U);
  EXPECT_EQ(write("file", "g", 1, 0), 0U);
  EXPECT_EQ(write("file", "g", 0, 1), 0U);
  EXPECT_EQ(read_file(dir_ / "file"), "abcdef");
}

TEST_F(DownloadStep, WritingWhereNoFileCanBeOpenedGivesZero) {
  EXPECT_EQ(write("missing/file", "abc", 1, 3), 0U);
  EXPECT_EQ(write(".", "abc", 1, 3), 0U);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_F(DownloadStep, WritingToAFullDiskGivesTheWholeItemsThatAreInTheFile) {
  const SmallDisk disk(dir_.path(), kDiskBytes);
  if (!disk.mounted()) GTEST_SKIP() << kNoNamespaces;
  EXPECT_EQ(write("file", std::string(70000, 'a'), 1000, 70), kDiskBytes / 1000);
  EXPECT_EQ(read_file(dir_ / "file").size(), kDiskBytes);
  EXPECT_EQ(write("file", "abc", 1, 3), 0U);
}

TEST_F(DownloadStep, WritingToAFullDeviceGivesZero) {
  if (!exists("/dev/full")) GTEST_SKIP() << "this host has no full device";
  std::string path = "/dev/full";
  std::string data = "abc";
  EXPECT_EQ(CUrlOp::write_to_file(data.data(), 1, 3, path.data()), 0U);
}

TEST_F(DownloadStep, WritingWhoseCloseFailsGivesZero) {
  const ScopedFault fault(Fault::kCloseFails);
  EXPECT_EQ(write("file", "abc", 1, 3), 0U);
}

TEST_F(DownloadStep, WritingGivesThePermissionsOfANewFile) {
  for (const auto& [mask, mode] : {std::pair(0U, 0666U), std::pair(007U, 0660U)}) {
    const ScopedUmask umask(mask);
    EXPECT_EQ(write(std::to_string(mask), "abc", 1, 3), 3U);
    EXPECT_EQ(mode_of(dir_ / std::to_string(mask)), mode);
  }
}

TEST_F(DownloadStep, WritingLeavesNoFileOpen) {
  const utility::Descriptor before(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(write("file", "abc", 1, 3), 3U);
  EXPECT_EQ(write("file", "abc", 0, 3), 0U);
  const utility::Descriptor after(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(after.get(), before.get() + 1);
}

TEST_F(DownloadStep, CheckingDeletesAFileThatExists) {
  write_file(dir_ / "file", "");
  EXPECT_EQ(CUrlOp::check_file_exist((dir_ / "file").c_str()), 0);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_F(DownloadStep, CheckingNeverFails) {
  EXPECT_EQ(CUrlOp::check_file_exist((dir_ / "missing").c_str()), 0);
  ASSERT_EQ(::mkdir((dir_ / "directory").c_str(), 0755), 0);
  EXPECT_EQ(CUrlOp::check_file_exist((dir_ / "directory").c_str()), 0) << "it cannot be deleted";
  ASSERT_EQ(::symlink("nothing", (dir_ / "dangling").c_str()), 0);
  EXPECT_EQ(CUrlOp::check_file_exist((dir_ / "dangling").c_str()), 0) << "it does not exist";
  EXPECT_EQ(names_in(dir_.path()), (string_list{"dangling", "directory"}));
}

}  // namespace
