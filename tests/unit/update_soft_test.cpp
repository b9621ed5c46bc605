#include "update_soft.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fake_uname.h"
#include "test_support.h"
#include "updater_support.h"
#include "utility/file.h"

using test_support::case_name;
using test_support::DirectoryWatch;
using test_support::exists;
using test_support::FakeUname;
using test_support::FileMount;
using test_support::gets;
using test_support::IdleProcess;
using test_support::kCutShort;
using test_support::make_full_directory;
using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::run_in_child;
using test_support::ScopedUmask;
using test_support::UpdaterTest;
using test_support::write_file;
using test_support::write_script;
using testing::Values;
using testing::ValuesIn;
using testing::WithParamInterface;
using Lines = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

constexpr char kServerVersion[] = "/norvak/norvak_agent_new_version.txt";
constexpr char kServerPackage[] = "/norvak/x64/nvupdate.tar";

constexpr char kOldVersion[] = "agent_3.1.9";
constexpr char kNewVersion[] = "agent_3.1.10";

constexpr char kVersionUnknown[] =
    "[SOFT] call check_norvak_new_version_exist->download_norvak_version_file faild";
constexpr char kPackageFailed[] =
    "[SOFT] call run_update_norvak_agent->download_norvak_update_package failed";
constexpr char kUpdateFailed[] = "[SOFT] call run_update_norvak_agent->update_now failed";
constexpr char kConfigFailed[] = "[SOFT] call run_update_norvak_agent->update_config failed";
constexpr char kUnpackFailed[] = "call decompress_package failed";
constexpr char kScriptFailed[] = "call exec_script failed";

/// A host with an old agent, which gets its updates from the server of the test.
class UpdateSoft : public UpdaterTest {
 protected:
  void SetUp() override {
    UpdaterTest::SetUp();
    if (IsSkipped()) return;
    start_directory_ = fs::current_path();
    write_config(settings());
    (void)updater_.init();
  }

  void TearDown() override {
    if (!start_directory_.empty()) fs::current_path(start_directory_);
  }

  /// The settings of the old agent.
  [[nodiscard]] Settings settings() const {
    return {{"update_host", server_address()}, {"update_type", "0"}, {"version", kOldVersion}};
  }

  [[nodiscard]] std::string config() const { return agent("config.xml"); }
  [[nodiscard]] std::string data_dir() const { return agent("update_norvak_soft/data"); }
  [[nodiscard]] std::string version_file() const { return agent("update_norvak_soft/new_version"); }
  [[nodiscard]] std::string package() const {
    return agent("update_norvak_soft/norvak_update_package.tar");
  }

  const FakeUname host_{"x86_64", ""};
  CUpdateSoftImpl updater_;

 private:
  fs::path start_directory_;
};

TEST_F(UpdateSoft, InitCreatesBothDirectoriesWithoutASearchBit) {
  const ScopedUmask umask(0);
  updater_.release();
  EXPECT_EQ(updater_.init(), 0);
  EXPECT_EQ(mode_of(agent("update_norvak_soft")), 0644U);
  EXPECT_EQ(mode_of(data_dir()), 0644U);
  EXPECT_EQ(names_in(agent("update_norvak_soft")), Lines({"data"}));
}

// The settings

TEST_F(UpdateSoft, TheServerAddressIsUsedUnchanged) {
  write_config({{"Update_Host", "a"},
                {"kernel_update_host", "b"},
                {"update_host", " http://host/path/ "},
                {"update_host", "c"}});
  EXPECT_EQ(updater_.get_download_url(), " http://host/path/ ");
}

TEST_F(UpdateSoft, TheFirstVersionSettingIsTheInstalledVersion) {
  write_config({{"Version", "a"}, {"version", kOldVersion}, {"version", kNewVersion}});
  EXPECT_EQ(updater_.get_norvak_old_version(), kOldVersion);
}

TEST_F(UpdateSoft, MissingSettingsAreEmptyTexts) {
  write_config({});
  EXPECT_EQ(updater_.get_download_url(), "");
  EXPECT_EQ(updater_.get_norvak_old_version(), "");
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateSoft, SettingsOfAConfigurationThatCannotBeLoadedAreEmptyTexts) {
  write_file(config(), "<norvak>");
  EXPECT_EQ(updater_.get_download_url(), "");
  EXPECT_EQ(updater_.get_norvak_old_version(), "");
  EXPECT_EQ(log_messages(), Lines());
}

struct MethodCase {
  const char* name;
  const char* value;
  int update_type;
};

class UpdateSoftMethod : public UpdateSoft, public WithParamInterface<MethodCase> {};

TEST_P(UpdateSoftMethod, IsReadAsANumber) {
  write_config({{"Update_type", "5"}, {"update_type", GetParam().value}, {"update_type", "6"}});
  int update_type = 7;
  EXPECT_EQ(updater_.get_update_method(update_type), 0);
  EXPECT_EQ(update_type, GetParam().update_type);
  EXPECT_EQ(log_messages(), Lines());
}

INSTANTIATE_TEST_SUITE_P(Settings, UpdateSoftMethod,
                         Values(MethodCase{"Automatic", "0", 0}, MethodCase{"Manual", "1", 1},
                                MethodCase{"LeadingBlankAndTrailingLetter", " 1x", 1},
                                MethodCase{"Empty", "", 0}, MethodCase{"NoDigits", "manual", 0}),
                         case_name);

TEST_F(UpdateSoft, AMissingUpdateMethodKeepsTheNumber) {
  write_config({{"version", kOldVersion}});
  int update_type = 7;
  EXPECT_EQ(updater_.get_update_method(update_type), 0);
  EXPECT_EQ(update_type, 7);
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateSoft, AnUpdateMethodWithoutAValueIsZero) {
  write_file(config(),
             "<norvak><Process><Data><var name='update_type'/></Data></Process></norvak>");
  int update_type = 7;
  EXPECT_EQ(updater_.get_update_method(update_type), 0);
  EXPECT_EQ(update_type, 0);
}

TEST_F(UpdateSoft, TheUpdateMethodOfAConfigurationThatCannotBeLoadedIsAnError) {
  ASSERT_EQ(::unlink(config().c_str()), 0);
  int update_type = 7;
  EXPECT_EQ(updater_.get_update_method(update_type), -1);
  EXPECT_EQ(update_type, 7);
  EXPECT_EQ(log_messages(),
            Lines({"[SOFT] call get_update_method function failed, config path: " + config()}));
}

// The version file

TEST_F(UpdateSoft, AVersionFileIsDownloadedUnchanged) {
  server_.reply(kServerVersion, "agent_3.1.10\r\n\n");
  EXPECT_EQ(updater_.download_norvak_version_file(), 0);
  EXPECT_EQ(read_file(version_file()), "agent_3.1.10\r\n\n");
  EXPECT_EQ(server_.requests(), gets({kServerVersion}));
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateSoft, AnEmptyReplyIsNoVersionFile) {
  write_file(version_file(), "agent_9\n");  // left by an earlier run
  reply_empty(kServerVersion);
  EXPECT_EQ(updater_.download_norvak_version_file(), -1);
  EXPECT_FALSE(exists(version_file()));
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateSoft, AnErrorPageOfSeveralLinesIsNoVersionFile) {
  server_.reply(kServerVersion, "<html>\n<h1>500</h1>\n</html>\n", 500);
  EXPECT_EQ(updater_.download_norvak_version_file(), -1);
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateSoft, WithoutAServerAddressNoVersionFileIsRequested) {
  write_config({{"update_host", ""}});
  EXPECT_EQ(updater_.download_norvak_version_file(), -1);
  EXPECT_EQ(server_.requests(), Lines());
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateSoft, AFailedDownloadOfTheVersionFileIsLogged) {
  reply_cut_short(kServerVersion);
  EXPECT_EQ(updater_.download_norvak_version_file(), -1);
  EXPECT_EQ(log_messages(),
            Lines({kCutShort, "[SOFT] download file failed [url: " + server_.url(kServerVersion) +
                                  "] [file: " + version_file() + "]"}));
}

TEST_F(UpdateSoft, WithoutAVersionFileTheNewVersionIsEmpty) {
  EXPECT_EQ(updater_.get_norvak_new_version(), "");
}

TEST_F(UpdateSoft, TheNewVersionIsReadOnce) {
  write_file(version_file(), "agent_3.1.10\n");
  EXPECT_EQ(updater_.get_norvak_new_version(), kNewVersion);
  write_file(version_file(), "agent_3.1.11\n");
  EXPECT_EQ(updater_.get_norvak_new_version(), kNewVersion);
  ASSERT_EQ(::unlink(version_file().c_str()), 0);
  EXPECT_EQ(updater_.get_norvak_new_version(), kNewVersion);
}

TEST_F(UpdateSoft, AnEmptyNewVersionIsReadAgain) {
  EXPECT_EQ(updater_.get_norvak_new_version(), "");
  write_file(version_file(), "\nagent_3.1.10\n");
  EXPECT_EQ(updater_.get_norvak_new_version(), "");
  write_file(version_file(), "agent_3.1.10\n");
  EXPECT_EQ(updater_.get_norvak_new_version(), kNewVersion);
}

TEST_F(UpdateSoft, TheFieldsOfAVersionAreAppended) {
  string_list parts = {"before"};
  CUpdateSoftImpl::parse_version("3.1-10", ".-", parts);
  EXPECT_EQ(parts, Lines({"before", "3", "1", "10"}));
}

// The comparison

struct VersionsCase {
  const char* name;
  const char* installed;
  const char* offered;
  bool newer;
};

class UpdateSoftVersions : public UpdateSoft, public WithParamInterface<VersionsCase> {};

TEST_P(UpdateSoftVersions, AreThoseOfConfigurationAndServer) {
  write_config({{"update_host", server_address()}, {"version", GetParam().installed}});
  server_.reply(kServerVersion, GetParam().offered + std::string("\n"));
  std::string old_version = "what was there";
  std::string new_version = "what was there";
  EXPECT_EQ(updater_.check_norvak_new_version_exist(old_version, new_version), GetParam().newer);
  EXPECT_EQ(old_version, GetParam().installed);
  EXPECT_EQ(new_version, GetParam().offered);
  EXPECT_EQ(log_messages(), Lines());
}

INSTANTIATE_TEST_SUITE_P(Pairs, UpdateSoftVersions,
                         Values(VersionsCase{"Newer", "abcdef3.1.9", "abcdef3.1.10", true},
                                VersionsCase{"Older", "abcdef3.2.0", "abcdef3.1.99", false}),
                         case_name);

TEST_F(UpdateSoft, WithoutAVersionFileThereIsNoNewVersion) {
  server_.reply(kServerVersion, "two\nlines\n");
  std::string old_version = "old";
  std::string new_version = "new";
  EXPECT_FALSE(updater_.check_norvak_new_version_exist(old_version, new_version));
  EXPECT_EQ(old_version, "old");
  EXPECT_EQ(new_version, "new");
  EXPECT_EQ(log_messages(), Lines({kVersionUnknown}));
}

TEST_F(UpdateSoft, WithoutAServerAddressThereIsNoNewVersion) {
  write_config({{"version", kOldVersion}});
  std::string version;
  EXPECT_FALSE(updater_.check_norvak_new_version_exist(version, version));
  EXPECT_EQ(log_messages(), Lines({kVersionUnknown}));
}

TEST_F(UpdateSoft, AfterAFailedDownloadThereIsNoNewVersion) {
  reply_cut_short(kServerVersion);
  std::string version;
  EXPECT_FALSE(updater_.check_norvak_new_version_exist(version, version));
  const Lines messages = log_messages();
  ASSERT_EQ(messages.size(), 3U);
  EXPECT_EQ(messages[0], kCutShort);
  EXPECT_EQ(messages[1].substr(0, 27), "[SOFT] download file failed");
  EXPECT_EQ(messages[2], kVersionUnknown);
}

TEST_F(UpdateSoft, AVersionThatIsTooShortIsAnOutOfRangeError) {
  write_config({{"update_host", server_address()}, {"version", "abcde"}});
  server_.reply(kServerVersion, "abcdef3.1\n");
  std::string old_version;
  std::string new_version;
  EXPECT_THROW((void)updater_.check_norvak_new_version_exist(old_version, new_version),
               std::out_of_range);
  EXPECT_EQ(old_version, "abcde");
  EXPECT_EQ(new_version, "abcdef3.1");
  EXPECT_EQ(read_file(version_file()), "abcdef3.1\n");
  EXPECT_EQ(log_messages(), Lines());
}

// The package

TEST_F(UpdateSoft, TheMachineNameChoosesThePackage) {
  server_.reply(kServerPackage, "package");
  EXPECT_EQ(updater_.download_norvak_update_package(), 0);
  EXPECT_EQ(read_file(package()), "package");
  const FakeUname host("i686", "");
  EXPECT_EQ(updater_.download_norvak_update_package(), 0);
  EXPECT_EQ(server_.requests(), gets({kServerPackage, "/norvak/x86/nvupdate.tar"}));
}

TEST_F(UpdateSoft, WithoutUnameTheHostGetsThe32BitPackage) {
  const FakeUname host = FakeUname::failing();
  EXPECT_EQ(updater_.download_norvak_update_package(), 0);
  EXPECT_EQ(server_.requests(), gets({"/norvak/x86/nvupdate.tar"}));
}

TEST_F(UpdateSoft, WithoutAServerAddressNoPackageIsRequested) {
  write_config({{"update_host", ""}});
  EXPECT_EQ(updater_.download_norvak_update_package(), -1);
  EXPECT_EQ(server_.requests(), Lines());
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateSoft, AFailedDownloadOfThePackageIsLoggedOnlyByTheDownload) {
  reply_cut_short(kServerPackage);
  EXPECT_EQ(updater_.download_norvak_update_package(), -1);
  EXPECT_EQ(log_messages(), Lines({kCutShort}));
}

// The commands

struct CommandCase {
  const char* name;
  const char* commands;
  int result;
};

/// Kills the process that runs a command with signal 9, also if that is an additional shell.
constexpr char kGetKilled[] =
    "test \"$(cat /proc/$PPID/comm)\" = sh && kill -9 $PPID\n"
    "kill -9 $$\n";

class UpdateSoftCommand : public UpdateSoft, public WithParamInterface<CommandCase> {};

TEST_P(UpdateSoftCommand, FailsUnlessTheTarProgramExitsWithZero) {
  write_script(agent("tool/tar"), GetParam().commands);
  EXPECT_EQ(updater_.decompress_package(), GetParam().result);
}

TEST_P(UpdateSoftCommand, FailsUnlessTheScriptExitsWithZero) {
  write_script(data_dir() + "/update", GetParam().commands);
  EXPECT_EQ(updater_.exec_script(), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Endings, UpdateSoftCommand,
    Values(CommandCase{"Exit0", "exit 0", 0}, CommandCase{"Exit1", "exit 1", -1},
           CommandCase{"Exit128", "exit 128", -1}, CommandCase{"Exit255", "exit 255", -1},
           CommandCase{"Killed", kGetKilled, -1}, CommandCase{"Terminated", "kill -15 $$", -1},
           CommandCase{"Exit127", "exec /nowhere", -1}),
    case_name);

TEST_F(UpdateSoft, AMissingTarProgramIsAFailure) { EXPECT_EQ(updater_.decompress_package(), -1); }

TEST_F(UpdateSoft, ATarProgramThatCannotBeExecutedIsAFailure) {
  write_file(agent("tool/tar"), "#!/bin/sh\nexit 0\n");
  EXPECT_EQ(updater_.decompress_package(), -1);
}

TEST_F(UpdateSoft, AMissingScriptIsAFailure) { EXPECT_EQ(updater_.exec_script(), -1); }

TEST_F(UpdateSoft, ACommandThatCannotBeForkedIsAFailure) {
  write_script(agent("tool/tar"), "exit 0");
  write_script(data_dir() + "/update", "exit 0");
  const int status = run_in_child([this] {
    // fork() fails in a PID namespace whose first process has ended.
    ASSERT_EQ(::unshare(CLONE_NEWPID), 0);
    ASSERT_EQ(run_in_child([] {}), 0);
    EXPECT_EQ(updater_.decompress_package(), -1);
    EXPECT_EQ(updater_.exec_script(), -1);
  });
  EXPECT_EQ(status, 0);
}

TEST_F(UpdateSoft, TheTarProgramGetsPackageAndDirectory) {
  write_script(agent("tool/tar"), "echo \"$0 $*\" > " + agent("arguments"));
  EXPECT_EQ(updater_.decompress_package(), 0);
  EXPECT_EQ(read_file(agent("arguments")),
            agent("tool/tar") + " xvf " + package() + " -C " + data_dir() + "\n");
}

TEST_F(UpdateSoft, PathsAreInsertedUnquoted) {
  const std::string install = agent("with blank");
  write_script(install + "/tool/tar", "exit 0");
  write_script(agent("with"), "echo \"$*\" > " + agent("arguments"));
  test_support::write_install_path(install + "\n");
  (void)updater_.init();
  EXPECT_EQ(updater_.decompress_package(), 0);  // runs the program before the blank
  EXPECT_EQ(read_file(agent("arguments")), "blank/tool/tar xvf " + install +
                                               "/update_norvak_soft/norvak_update_package.tar -C " +
                                               install + "/update_norvak_soft/data\n");
  ASSERT_EQ(::unlink(agent("with").c_str()), 0);
  EXPECT_EQ(updater_.decompress_package(), -1);
}

TEST_F(UpdateSoft, TheScriptRunsInTheDataDirectoryWhereTheProcessStays) {
  write_script(data_dir() + "/update", "pwd > " + agent("directory"));
  EXPECT_EQ(updater_.exec_script(), 0);
  EXPECT_TRUE(fs::equivalent(fs::current_path(), data_dir()));
  EXPECT_EQ(read_file(agent("directory")), fs::current_path().string() + "\n");
}

TEST_F(UpdateSoft, TheScriptIsMadeExecutable) {
  write_script(data_dir() + "/update", "exit 0");
  ASSERT_EQ(::chmod((data_dir() + "/update").c_str(), 0622), 0);
  EXPECT_EQ(updater_.exec_script(), 0);
  EXPECT_EQ(mode_of(data_dir() + "/update"), 0544U);
}

/// Redirects a descriptor of this process to a file.
class Redirection {
 public:
  Redirection(int fd, const std::string& path) : fd_(fd), old_(::dup(fd)) {
    const utility::Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    (void)::dup2(file.get(), fd);
  }
  ~Redirection() { (void)::dup2(old_.get(), fd_); }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

 private:
  int fd_;
  utility::Descriptor old_;
};

TEST_F(UpdateSoft, StandardOutputOfTheCommandsIsDiscardedStandardErrorIsNot) {
  write_script(agent("tool/tar"), "echo listing; echo tar error >&2");
  write_script(data_dir() + "/update", "echo progress; echo script error >&2");
  {
    const Redirection output(STDOUT_FILENO, agent("output"));
    const Redirection errors(STDERR_FILENO, agent("errors"));
    EXPECT_EQ(updater_.decompress_package(), 0);
    EXPECT_EQ(updater_.exec_script(), 0);
  }
  EXPECT_EQ(read_file(agent("output")), "");
  EXPECT_EQ(read_file(agent("errors")), "tar error\nscript error\n");
}

// The installation

/// An agent with its programs. They and the script of the package record in a file which of them
/// ran where, and whether the update marker and the agent's pid file existed.
class UpdateSoftInstallation : public UpdateSoft {
 protected:
  void SetUp() override {
    UpdateSoft::SetUp();
    if (IsSkipped()) return;
    write_script(agent("tool/tar"), note("tar") + "exec tar \"$@\"\n");
    write_script(agent("startup.sh"), note("startup.sh"));
    write_file(agent("norvak.pid"), std::to_string(agent_process_.pid()) + "\n");
    fs::current_path(agent("runlog"));
  }

  /// The command that adds a note of @a who.
  [[nodiscard]] std::string note(const std::string& who) const {
    return "echo \"" + who + " in ${PWD##*/}$(test -e " + agent("update") +
           " && echo ', marker')$(test -e " + agent("norvak.pid") + " && echo ', pid file')\" >> " +
           agent("notes") + "\n";
  }

  [[nodiscard]] Lines notes() const {
    Lines lines;
    std::ifstream notes(agent("notes"));  // missing if there are no notes
    for (std::string line; std::getline(notes, line);) lines.push_back(line);
    return lines;
  }

  /// Publishes a package whose script adds its note and runs @a commands.
  void publish(const std::string& commands) { publish_with("update", commands); }

  void publish_with(const std::string& script, const std::string& commands) {
    write_script(agent("package/" + script), note("script") + commands);
    const std::string archive = agent("package.tar");
    const std::string command = "tar cf " + archive + " -C " + agent("package") + " .";
    ASSERT_EQ(std::system(command.c_str()), 0);
    server_.reply(kServerPackage, read_file(archive));
  }

  /// Expects that the agent was stopped and started again.
  void expect_restarted(const Lines& messages, const Lines& expected_notes) {
    EXPECT_EQ(log_messages(), messages);
    EXPECT_EQ(notes(), expected_notes);
    EXPECT_EQ(agent_process_.wait_for_signal(), SIGKILL);
    EXPECT_FALSE(exists(agent("norvak.pid")));
    EXPECT_FALSE(exists(agent("update")));
  }

  /// Whether the agent still runs. Does not wait for it.
  [[nodiscard]] bool agent_runs() const {
    siginfo_t end = {};
    const auto pid = static_cast<id_t>(agent_process_.pid());
    return ::waitid(P_PID, pid, &end, WEXITED | WNOHANG | WNOWAIT) == 0 && end.si_pid == 0;
  }

  /// Expects that the package was not available and that the agent still runs.
  void expect_untouched(const Lines& messages) {
    EXPECT_EQ(log_messages(), messages);
    EXPECT_EQ(notes(), Lines());
    EXPECT_TRUE(agent_runs());
    EXPECT_TRUE(exists(agent("norvak.pid")));
    EXPECT_FALSE(exists(agent("update")));
  }

  IdleProcess agent_process_;
};

const Lines kAllNotes = {"tar in runlog, marker", "script in data, marker", "startup.sh in data"};

TEST_F(UpdateSoftInstallation, RunsInOrder) {
  publish("echo new > ../../program");
  const DirectoryWatch watch({install_path()});
  EXPECT_EQ(updater_.run_update_norvak_agent(), 0);
  EXPECT_EQ(server_.requests(), gets({kServerPackage}));
  EXPECT_EQ(read_file(agent("program")), "new\n");
  EXPECT_EQ(watch.events({"update", "norvak.pid", "program", "config.xml"}),
            Lines({"create update", "delete norvak.pid", "create program", "put config.xml",
                   "put config.xml", "delete update"}));
  expect_restarted({}, kAllNotes);
}

TEST_F(UpdateSoftInstallation, CarriesTheSettingsIntoTheNewConfiguration) {
  write_config({{"update_host", server_address()}, {"update_type", "1"}, {"version", kOldVersion}});
  write_file(version_file(), "agent_3.1.10\n");
  publish(
      "sed -e 's/\"1\"/\"0\"/' -e 's/agent_3.1.9/new/' ../../config.xml > new &&"
      "mv new ../../config.xml");
  EXPECT_EQ(updater_.run_update_norvak_agent(), 0);
  EXPECT_EQ(updater_.get_norvak_old_version(), kNewVersion);
  int update_type = 0;
  EXPECT_EQ(updater_.get_update_method(update_type), 0);
  EXPECT_EQ(update_type, 1);
}

TEST_F(UpdateSoftInstallation, WithoutAServerAddressTouchesNothing) {
  write_config({});
  const DirectoryWatch watch({install_path()});
  EXPECT_EQ(updater_.run_update_norvak_agent(), -1);
  EXPECT_EQ(server_.requests(), Lines());
  EXPECT_EQ(watch.events({"update", "norvak.pid", "config.xml"}),
            Lines({"create update", "delete update"}));
  expect_untouched({kPackageFailed});
}

TEST_F(UpdateSoftInstallation, AfterAFailedDownloadTouchesNothing) {
  reply_cut_short(kServerPackage);
  const DirectoryWatch watch({install_path()});
  EXPECT_EQ(updater_.run_update_norvak_agent(), -1);
  EXPECT_EQ(watch.events({"update", "norvak.pid", "config.xml"}),
            Lines({"create update", "delete update"}));
  expect_untouched({kCutShort, kPackageFailed});
}

TEST_F(UpdateSoftInstallation, OfAnErrorPageFailsToUnpack) {
  const std::string before = read_file(config());
  EXPECT_EQ(updater_.run_update_norvak_agent(), -1);  // the server has no such file
  expect_restarted({kUnpackFailed, kUpdateFailed},
                   {"tar in runlog, marker", "startup.sh in runlog"});
  EXPECT_EQ(read_file(config()), before);
}

TEST_F(UpdateSoftInstallation, OfAnEmptyPackageFailsToUnpack) {
  reply_empty(kServerPackage);
  EXPECT_EQ(updater_.run_update_norvak_agent(), -1);
  expect_restarted({kUnpackFailed, kUpdateFailed},
                   {"tar in runlog, marker", "startup.sh in runlog"});
}

TEST_F(UpdateSoftInstallation, WithoutATarProgramFailsToUnpack) {
  publish("");
  ASSERT_EQ(::unlink(agent("tool/tar").c_str()), 0);
  EXPECT_EQ(updater_.run_update_norvak_agent(), -1);
  expect_restarted({kUnpackFailed, kUpdateFailed}, {"startup.sh in runlog"});
}

TEST_F(UpdateSoftInstallation, OfAPackageWithoutAScriptFails) {
  publish_with("upgrade", "");
  EXPECT_EQ(updater_.run_update_norvak_agent(), -1);
  expect_restarted({kScriptFailed, kUpdateFailed}, {"tar in runlog, marker", "startup.sh in data"});
  EXPECT_TRUE(exists(data_dir() + "/upgrade"));
}

TEST_F(UpdateSoftInstallation, KeepsTheChangesOfAFailingScript) {
  const std::string before = read_file(config());
  publish("echo new > ../../program; exit 3");
  EXPECT_EQ(updater_.run_update_norvak_agent(), -1);
  expect_restarted({kScriptFailed, kUpdateFailed}, kAllNotes);
  EXPECT_EQ(read_file(agent("program")), "new\n");
  EXPECT_EQ(read_file(config()), before);
}

TEST_F(UpdateSoftInstallation, WithAScriptThatIsKilledFails) {
  publish(kGetKilled);
  EXPECT_EQ(updater_.run_update_norvak_agent(), -1);
  expect_restarted({kScriptFailed, kUpdateFailed}, kAllNotes);
}

TEST_F(UpdateSoftInstallation, FailsIfTheScriptRemovesTheConfiguration) {
  publish("rm ../../config.xml");
  EXPECT_EQ(updater_.run_update_norvak_agent(), -1);
  expect_restarted({kConfigFailed}, kAllNotes);
}

/// The configuration is a link to the file that the downloaded package replaces.
TEST_F(UpdateSoftInstallation, FailsSilentlyIfTheConfigurationDisappearsBeforeUnpacking) {
  publish("");
  ASSERT_EQ(::rename(config().c_str(), package().c_str()), 0);
  ASSERT_EQ(::symlink(package().c_str(), config().c_str()), 0);
  EXPECT_EQ(updater_.run_update_norvak_agent(), -1);
  expect_restarted({kUpdateFailed}, {"startup.sh in runlog"});
  EXPECT_EQ(names_in(data_dir()), Lines());
}

TEST_F(UpdateSoftInstallation, ContinuesWithoutARunningAgent) {
  publish("");
  ASSERT_EQ(::unlink(agent("norvak.pid").c_str()), 0);
  EXPECT_EQ(updater_.run_update_norvak_agent(), 0);
  EXPECT_EQ(notes(), kAllNotes);
  EXPECT_TRUE(agent_runs());
}

TEST_F(UpdateSoftInstallation, IgnoresTheResultOfTheStart) {
  publish("");
  write_script(agent("startup.sh"), "exit 1");
  EXPECT_EQ(updater_.run_update_norvak_agent(), 0);
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateSoftInstallation, KeepsTheContentsOfAnExistingMarkerAndDeletesItAtTheEnd) {
  write_file(agent("update"), "marker of an earlier run");
  publish("cp ../../update ../../marker");
  EXPECT_EQ(updater_.run_update_norvak_agent(), 0);
  EXPECT_EQ(read_file(agent("marker")), "marker of an earlier run");
  EXPECT_FALSE(exists(agent("update")));
}

TEST_F(UpdateSoftInstallation, GivesTheMarkerThePermissionsOfANewFile) {
  publish("stat -c %a ../../update >> ../../modes");
  for (const mode_t mask : {0U, 002U}) {
    const ScopedUmask umask(mask);
    EXPECT_EQ(updater_.run_update_norvak_agent(), 0);
  }
  EXPECT_EQ(read_file(agent("modes")), "666\n664\n");
}

TEST_F(UpdateSoftInstallation, DeletesAnEmptyDirectoryWithTheNameOfTheMarker) {
  ASSERT_EQ(::mkdir(agent("update").c_str(), 0755), 0);
  publish("");
  EXPECT_EQ(updater_.run_update_norvak_agent(), 0);
  EXPECT_FALSE(exists(agent("update")));
}

TEST_F(UpdateSoftInstallation, ContinuesWithoutAMarker) {
  make_full_directory(agent("update"));
  publish("");
  EXPECT_EQ(updater_.run_update_norvak_agent(), 0);
  EXPECT_EQ(names_in(agent("update")), Lines({"occupant"}));
}

TEST_F(UpdateSoftInstallation, LeavesNoFilesAfterTheRelease) {
  publish("");
  EXPECT_EQ(updater_.run_update_norvak_agent(), 0);
  EXPECT_EQ(names_in(data_dir()), Lines({"update"}));
  updater_.release();
  EXPECT_FALSE(exists(agent("update_norvak_soft")));
}

TEST_F(UpdateSoftInstallation, DoesNotUnpackWithoutAConfiguration) {
  write_file(config(), "<norvak>");
  EXPECT_EQ(updater_.update_now(), -1);
  EXPECT_EQ(notes(), Lines());
  EXPECT_EQ(log_messages(), Lines());
}

// The carry-over of settings

/// The version file exists, and a script installs the new configuration.
class UpdateSoftCarryOver : public UpdateSoft {
 protected:
  /// Records the update method of the old configuration, installs the new one, and edits it.
  /// @return how often the new one was saved
  std::size_t carry_over(const Settings& old_settings, const Settings& new_settings) {
    write_config(new_settings);
    EXPECT_EQ(::rename(config().c_str(), agent("new_config.xml").c_str()), 0);
    write_config(old_settings);
    write_script(agent("tool/tar"), "exit 0");
    write_script(data_dir() + "/update", "cp ../../new_config.xml ../../config.xml");
    EXPECT_EQ(updater_.update_now(), 0);
    return edit();
  }

  /// @return how often the configuration was saved
  std::size_t edit() {
    const DirectoryWatch watch({install_path()});
    EXPECT_EQ(updater_.update_config(), 0);
    EXPECT_EQ(log_messages(), Lines());
    return watch.events({"config.xml"}).size();
  }

  void expect_settings(const Settings& expected) {
    const std::string text = read_file(config());
    write_config(expected);
    EXPECT_EQ(text, read_file(config()));
  }
};

struct CarryOverCase {
  using Settings = std::vector<std::pair<std::string, std::string>>;

  const char* name;
  Settings installed;
  Settings carried_over;
  std::size_t saves;
};

class UpdateSoftCarryOverTable : public UpdateSoftCarryOver,
                                 public WithParamInterface<CarryOverCase> {};

TEST_P(UpdateSoftCarryOverTable, ChangesAtMostTwoSettings) {
  write_file(version_file(), "agent_3.1.10\n");
  EXPECT_EQ(carry_over({{"update_type", "1"}}, GetParam().installed), GetParam().saves);
  expect_settings(GetParam().carried_over);
}

const CarryOverCase kCarryOvers[] = {
    {"EachOnce",
     {{"version", "?"}, {"update_type", "0"}},
     {{"version", kNewVersion}, {"update_type", "1"}},
     2},
    {"TheOtherWayRound",
     {{"update_type", "0"}, {"version", "?"}},
     {{"update_type", "1"}, {"version", kNewVersion}},
     2},
    {"AmongOthers",
     {{"a", "1"}, {"version", "?"}, {"b", "2"}, {"update_type", "0"}, {"c", "3"}},
     {{"a", "1"}, {"version", kNewVersion}, {"b", "2"}, {"update_type", "1"}, {"c", "3"}},
     2},
    {"NoUpdateType", {{"a", "1"}, {"version", "?"}}, {{"a", "1"}, {"version", kNewVersion}}, 1},
    {"NoVersion", {{"update_type", "0"}, {"a", "1"}}, {{"update_type", "1"}, {"a", "1"}}, 1},
    {"Neither", {{"a", "1"}}, {{"a", "1"}}, 0},
    {"NoSetting", {}, {}, 0},
    {"LetterCase",
     {{"Version", "?"}, {"UPDATE_TYPE", "0"}},
     {{"Version", "?"}, {"UPDATE_TYPE", "0"}},
     0},
    {"AsTheyWere",
     {{"version", kNewVersion}, {"update_type", "1"}},
     {{"version", kNewVersion}, {"update_type", "1"}},
     2},
    {"TwoVersionsBeforeUpdateType",
     {{"version", "?"}, {"version", "!"}, {"update_type", "0"}},
     {{"version", kNewVersion}, {"version", kNewVersion}, {"update_type", "0"}},
     2},
    {"TwoUpdateTypesBeforeVersion",
     {{"update_type", "0"}, {"update_type", "2"}, {"version", "?"}},
     {{"update_type", "1"}, {"update_type", "1"}, {"version", "?"}},
     2},
    {"ThirdOfAName",
     {{"version", "?"}, {"update_type", "0"}, {"version", "!"}, {"update_type", "2"}},
     {{"version", kNewVersion}, {"update_type", "1"}, {"version", "!"}, {"update_type", "2"}},
     2},
};

INSTANTIATE_TEST_SUITE_P(Configurations, UpdateSoftCarryOverTable, ValuesIn(kCarryOvers),
                         case_name);

TEST_F(UpdateSoftCarryOver, OfAMissingUpdateMethodEmptiesTheNewOne) {
  write_file(version_file(), "agent_3.1.10\n");
  EXPECT_EQ(carry_over({{"version", kOldVersion}}, {{"version", "?"}, {"update_type", "0"}}), 2U);
  expect_settings({{"version", kNewVersion}, {"update_type", ""}});
}

TEST_F(UpdateSoftCarryOver, TakesTheFirstUpdateMethod) {
  (void)carry_over({{"update_type", " 1x"}, {"update_type", "2"}}, {{"update_type", "0"}});
  expect_settings({{"update_type", " 1x"}});
}

TEST_F(UpdateSoftCarryOver, OfAManualRunEmptiesTheVersion) {
  EXPECT_EQ(carry_over(settings(), {{"version", "?"}, {"update_type", "1"}}), 2U);
  expect_settings({{"version", ""}, {"update_type", "0"}});
}

TEST_F(UpdateSoftCarryOver, CountsAnEmptyValueAsAChange) {
  const Settings installed = {{"version", "?"}, {"update_type", "1"}, {"version", "!"}};
  EXPECT_EQ(carry_over(settings(), installed), 2U);  // as in a manual run, without a version
  expect_settings({{"version", ""}, {"update_type", "0"}, {"version", "!"}});
}

TEST_F(UpdateSoftCarryOver, OfAManualRunUsesALeftoverVersionFile) {
  write_file(version_file(), "agent_3.0\nsecond line\n");
  EXPECT_EQ(carry_over(settings(), {{"version", "?"}}), 1U);
  expect_settings({{"version", "agent_3.0"}});
}

TEST_F(UpdateSoftCarryOver, TakesTheVersionThatWasReadBefore) {
  write_file(version_file(), "agent_3.1.10\n");
  EXPECT_EQ(updater_.get_norvak_new_version(), kNewVersion);
  ASSERT_EQ(::unlink(version_file().c_str()), 0);
  EXPECT_EQ(carry_over(settings(), {{"version", "?"}}), 1U);
  expect_settings({{"version", kNewVersion}});
}

TEST_F(UpdateSoftCarryOver, KeepsSpecialCharacters) {
  write_file(version_file(), "agent_<3.1> & \"x\"\n");
  EXPECT_EQ(carry_over(settings(), {{"version", "?"}}), 1U);
  EXPECT_EQ(updater_.get_norvak_old_version(), "agent_<3.1> & \"x\"");
}

TEST_F(UpdateSoftCarryOver, FailsWithoutAConfiguration) {
  ASSERT_EQ(::unlink(config().c_str()), 0);
  EXPECT_EQ(updater_.update_config(), -1);
  EXPECT_FALSE(exists(config()));
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateSoftCarryOver, FailsWithAMalformedConfiguration) {
  write_file(config(), "<norvak>");
  EXPECT_EQ(updater_.update_config(), -1);
  EXPECT_EQ(read_file(config()), "<norvak>");
  EXPECT_EQ(log_messages(), Lines());
}

TEST_F(UpdateSoftCarryOver, IgnoresThatASaveFails) {
  write_config(settings());
  const std::string before = read_file(config());
  const FileMount mount(config(), config());
  ASSERT_TRUE(mount.mounted());
  const unsigned long read_only = MS_BIND | MS_REMOUNT | MS_RDONLY;
  ASSERT_EQ(::mount(nullptr, config().c_str(), nullptr, read_only, nullptr), 0);
  EXPECT_EQ(edit(), 0U);
  EXPECT_EQ(read_file(config()), before);
}

}  // namespace
