#include "utility/unix_helper.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <string>

#include "faults.h"
#include "test_support.h"
#include "utility/string_list.h"

namespace {

using test_support::Fault;
using test_support::Interruptions;
using test_support::mode_of;
using test_support::names_in;
using test_support::read_file;
using test_support::run_in_child;
using test_support::ScopedFault;
using test_support::ScopedUmask;
using test_support::ScopedVariable;
using test_support::ScratchDirectory;
using test_support::write_file;
using test_support::write_install_path;
using test_support::write_script;
using utility::CUnixHelper;

constexpr char kNoNamespaces[] = "this host does not allow private mount namespaces";
constexpr int kCannotExecute = 127;

int exit_code(int wait_status) { return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1; }

// The install directory.

class InstallPath : public testing::Test {
 protected:
  void SetUp() override {
    if (!test_support::in_private_namespace()) GTEST_SKIP() << kNoNamespaces;
    remove();
  }

  void TearDown() override {
    if (test_support::in_private_namespace()) remove();
  }

  static void remove() {
    (void)::unlink(test_support::kInstallPathFile);
    (void)::rmdir(test_support::kInstallPathFile);
  }

  /// The install directory if version_control has this text.
  static std::string install_path_from(const std::string& text) {
    write_install_path(text);
    return CUnixHelper::get_norvak_path();
  }
};

TEST_F(InstallPath, IsTheFirstLineWithoutItsLineFeed) {
  EXPECT_EQ(install_path_from("/opt/agent\n"), "/opt/agent");
  EXPECT_EQ(install_path_from("/opt/agent"), "/opt/agent");
  EXPECT_EQ(install_path_from("/opt/agent\n/opt/other\n"), "/opt/agent");
  EXPECT_EQ(install_path_from("/opt/agent/\n"), "/opt/agent/");
}

TEST_F(InstallPath, KeepsABlankAfterThePath) {
  EXPECT_EQ(install_path_from("/opt/agent \n"), "/opt/agent ");
}

TEST_F(InstallPath, KeepsAllOtherWhiteSpaceToo) {
  EXPECT_EQ(install_path_from(" /opt/the agent\t\n"), " /opt/the agent\t");
  EXPECT_EQ(install_path_from("/opt/agent\r\n"), "/opt/agent\r");
}

TEST_F(InstallPath, IsTheDefaultWithoutTheFile) {
  EXPECT_EQ(CUnixHelper::get_norvak_path(), "/usr/local/norvak_agent");
  ASSERT_EQ(::symlink("nothing", test_support::kInstallPathFile), 0);
  EXPECT_EQ(CUnixHelper::get_norvak_path(), "/usr/local/norvak_agent") << "a dangling link";
}

TEST_F(InstallPath, IsEmptyWhenTheFileIsEmpty) {
  EXPECT_EQ(install_path_from(""), "");
  EXPECT_EQ(install_path_from("\n"), "");
  EXPECT_EQ(install_path_from("\n/opt/agent\n"), "");
}

TEST_F(InstallPath, IsTheDefaultWhenTheFileCannotBeRead) {
  ASSERT_EQ(::mkdir(test_support::kInstallPathFile, 0755), 0);  // can be opened, but not read
  EXPECT_EQ(CUnixHelper::get_norvak_path(), "/usr/local/norvak_agent");
}

TEST_F(InstallPath, IsTruncatedAfter1022Characters) {
  for (const std::size_t length : {1021U, 1022U}) {
    const std::string path = "/" + std::string(length - 1, 'a');
    EXPECT_EQ(install_path_from(path), path) << length;
    EXPECT_EQ(install_path_from(path + "\n"), path) << length;
  }
  const std::string longest = "/" + std::string(1021, 'a');
  EXPECT_EQ(install_path_from(longest + "b\n"), longest);
  EXPECT_EQ(install_path_from(longest + std::string(5000, 'b')), longest);
}

TEST_F(InstallPath, EndsAtAZeroByte) {
  EXPECT_EQ(install_path_from(std::string("/opt\0/agent\n", 12)), "/opt");
}

TEST_F(InstallPath, IsReadAgainEachTime) {
  EXPECT_EQ(install_path_from("/opt/one\n"), "/opt/one");
  EXPECT_EQ(install_path_from("/opt/two\n"), "/opt/two");
  remove();
  EXPECT_EQ(CUnixHelper::get_norvak_path(), "/usr/local/norvak_agent");
}

// Trimming and splitting.

TEST(TrimSpace, StripsBothEndsInPlace) {
  struct Case {
    const char* before;
    const char* after;
  };
  constexpr Case kCases[] = {{"text", "text"},
                             {" text ", "text"},
                             {" \t\n\v\f\rtext\r\f\v\n\t ", "text"},
                             {"two  words", "two  words"},
                             {"left ", "left"},
                             {" right", "right"},
                             {"", ""},
                             {" \t\n", ""},
                             {"\xa0text\xa0", "\xa0text\xa0"}};
  for (const Case& c : kCases) {
    std::string text = c.before;
    EXPECT_EQ(CUnixHelper::trim_space(text.data()), text.data());
    EXPECT_STREQ(text.c_str(), c.after);
  }
}

TEST(TrimSpace, PassesNullThrough) { EXPECT_EQ(CUnixHelper::trim_space(nullptr), nullptr); }

string_list parsed(std::string text, const char* delimiters) {
  std::array<char*, 64> fields{};
  int count = -1;
  EXPECT_TRUE(CUnixHelper::parse(text.data(), delimiters, fields.data(), &count));
  string_list result;
  for (int i = 0; i < count; ++i) result.emplace_back(fields[static_cast<std::size_t>(i)]);
  EXPECT_EQ(fields[static_cast<std::size_t>(count)], nullptr) << "a field too many";
  return result;
}

TEST(Parse, TwoBlanksBetweenWordsCountAsOne) {
  EXPECT_EQ(parsed("two  words", " "), (string_list{"two", "words"}));
}

TEST(Parse, SplitsAtEachDelimiterAndTrimsWhatFollows) {
  struct Case {
    const char* why;
    const char* text;
    const char* delimiters;
    string_list fields;
  };
  const Case kCases[] = {
      {"one field", "word", " ", {"word"}},
      {"empty text", "", " ", {""}},
      {"outer white space", " \t a b \n", " ", {"a", "b"}},
      {"white space after a blank", "a \t\r b", " ", {"a", "b"}},
      {"a tab alone is no delimiter", "a\tb c", " ", {"a\tb", "c"}},
      {"a tab between quotes is no delimiter", "\"a\tb\" c", " ", {"\"a\tb\"", "c"}},
      {"empty fields", ",a,,b,", ",", {"", "a", "", "b", ""}},
      {"a blank before a delimiter stays", "a , b", ",", {"a ", "b"}},
      {"several delimiters", "a,b;c", ",;", {"a", "b", "c"}},
      {"delimiters that do not occur", "a b", ",;", {"a b"}},
      {"no delimiters", "a b", "", {"a b"}},
      {"double quotes for nothing", "a \"\" b", " ", {"a", "", "b"}},
      {"single quotes for nothing", "a '' b", " ", {"a", "", "b"}},
      {"nothing at the end", "a \"\"", " ", {"a", ""}},
      {"text after two quotes is dropped", "a \"\"b c", " ", {"a", "", "c"}},
      {"but not in the first field", "\"\" a", " ", {"\"\"", "a"}},
      {"different quotes are no pair", "a \"' b", " ", {"a", "\"'", "b"}},
  };
  for (const Case& c : kCases) EXPECT_EQ(parsed(c.text, c.delimiters), c.fields) << c.why;
}

TEST(Parse, QuotesAndLineFeedsBecomeBlanksInFieldsWithALineFeed) {
  EXPECT_EQ(parsed("a \"b\nc\" 'd' e", " "), (string_list{"a", "b c", "'d'", "e"}));
  EXPECT_EQ(parsed("a 'b\n\nc\"d\n'", " "), (string_list{"a", "b  c d"}));
  EXPECT_EQ(parsed("\"a\nb\" c", " "), (string_list{"a b", "c"}));
  EXPECT_EQ(parsed("\"a\nb\"", ",;"), (string_list{"a b"}));
  EXPECT_EQ(parsed("a 'b\nc\td'", " "), (string_list{"a", "b c\td"})) << "a tab stays";
}

TEST(Parse, ATextWithoutItsOnlyDelimiterIsLeftAsItIs) {
  EXPECT_EQ(parsed(" \"a\nb\" ", ","), (string_list{"\"a\nb\""}));
}

TEST(Parse, NullTextFailsAndTouchesNothing) {
  char untouched = 'x';
  std::array<char*, 1> fields = {&untouched};
  int count = 7;
  EXPECT_FALSE(CUnixHelper::parse(nullptr, " ", fields.data(), &count));
  EXPECT_EQ(fields[0], &untouched);
  EXPECT_EQ(count, 7);
}

// Programs on PATH.

/// Two directories, `first` and `second`, for PATH.
class CommandPath : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* const name : {"first", "second"})
      ASSERT_EQ(::mkdir((dir_ / name).c_str(), 0755), 0);
  }

  /// What @a command resolves to with this PATH; "none" if the lookup fails.
  static std::string resolved(const std::string& command, const char* path) {
    const ScopedVariable variable("PATH", path);
    std::array<char, CUnixHelper::kResolvedBytes> program{};
    program.fill('x');
    const int result = CUnixHelper::get_command_obs_path(command.c_str(), program.data());
    return result == 1 ? program.data() : "none";
  }

  [[nodiscard]] std::string both() const { return dir_ / "first" + ":" + (dir_ / "second"); }

  ScratchDirectory dir_;
};

TEST_F(CommandPath, TheFirstDirectoryWithTheProgramCounts) {
  write_script(dir_ / "second/program", "");
  EXPECT_EQ(resolved("program", both().c_str()), dir_ / "second/program");
  write_script(dir_ / "first/program", "");
  EXPECT_EQ(resolved("program", both().c_str()), dir_ / "first/program");
  EXPECT_EQ(resolved("program", (dir_ / "second").c_str()), dir_ / "second/program");
}

TEST_F(CommandPath, AFileThatCannotBeExecutedIsSkipped) {
  write_file(dir_ / "first/program", "");
  write_script(dir_ / "second/program", "");
  EXPECT_EQ(resolved("program", both().c_str()), dir_ / "second/program");
}

TEST_F(CommandPath, ADirectoryCountsAsAProgram) {
  ASSERT_EQ(::mkdir((dir_ / "first/program").c_str(), 0755), 0);
  write_script(dir_ / "second/program", "");
  EXPECT_EQ(resolved("program", both().c_str()), dir_ / "first/program");
}

TEST_F(CommandPath, AProgramThatIsNotFoundResolvesToNothingWithSuccess) {
  EXPECT_EQ(resolved("program", both().c_str()), "");
}

TEST_F(CommandPath, AnAbsolutePathIsNotChanged) {
  EXPECT_EQ(resolved("/no/such/program", nullptr), "/no/such/program");
  const std::string longest = "/" + std::string(253, 'a');
  EXPECT_EQ(resolved(longest, ""), longest);
  EXPECT_EQ(resolved(longest + "a", ""), "none") << "does not fit";
}

TEST_F(CommandPath, ARelativePathIsLookedUpToo) {
  write_script(dir_ / "second/sub/program", "");
  EXPECT_EQ(resolved("sub/program", both().c_str()), dir_ / "second/sub/program");
}

TEST_F(CommandPath, AnEmptyDirectoryIsTheRoot) {
  write_script(dir_ / "first/program", "");
  const std::string below_root = dir_ / "first/program";
  const std::string command = below_root.substr(1);
  for (const char* const path : {"", ":", ":/nowhere", "/nowhere:", "/nowhere::/nowhere"})
    EXPECT_EQ(resolved(command, path), below_root) << path;
}

TEST_F(CommandPath, WithoutPathNothingIsFound) { EXPECT_EQ(resolved("sh", nullptr), "none"); }

TEST_F(CommandPath, PathMayBeLong) {
  write_script(dir_ / "first/program", "");
  std::string path;
  for (int i = 0; i < 100; ++i) path += "/no/such/directory" + std::to_string(i) + ":";
  EXPECT_EQ(resolved("program", (path + (dir_ / "first")).c_str()), dir_ / "first/program");
}

TEST_F(CommandPath, ACandidateIsTruncatedAfter254Characters) {
  std::string deep = dir_.path();
  while (deep.size() < 245)
    deep += "/" + std::string(std::min<std::size_t>(245 - deep.size(), 50), 'd');
  const std::string fits = deep.substr(0, 245);
  const std::string name(254 - fits.size() - 1, 'p');
  write_script(fits + "/" + name, "");
  EXPECT_EQ(resolved(name, fits.c_str()), fits + "/" + name);
  EXPECT_EQ(resolved(name + "more", fits.c_str()), fits + "/" + name);
}

TEST_F(CommandPath, NullFails) {
  std::array<char, CUnixHelper::kResolvedBytes> program{};
  EXPECT_EQ(CUnixHelper::get_command_obs_path(nullptr, program.data()), 0);
  EXPECT_EQ(CUnixHelper::get_command_obs_path("sh", nullptr), 0);
}

// Running programs.

/// A program `program` that writes its arguments into a file.
class Command : public testing::Test {
 protected:
  void SetUp() override {
    write_script(program(),
                 R"(for a; do printf '%s\0' "$a"; done > ")" + (dir_ / "arguments") + "\"");
  }

  [[nodiscard]] std::string program() const { return dir_ / "program"; }

  /// The arguments that the program receives for the rest of a command line.
  string_list arguments(const std::string& rest) {
    (void)::unlink((dir_ / "arguments").c_str());
    EXPECT_EQ(CUnixHelper::keld_system((program() + " " + rest).c_str()), 0) << rest;
    return arguments_of_last_run();
  }

  string_list arguments_of_last_run() {
    string_list arguments;
    const std::string text = read_file(dir_ / "arguments");
    for (std::size_t begin = 0; begin < text.size();) {
      arguments.emplace_back(text.c_str() + begin);
      begin += arguments.back().size() + 1;
    }
    return arguments;
  }

  /// The wait status of a script with these commands.
  int status_of(const std::string& commands) {
    write_script(dir_ / "script", commands);
    return CUnixHelper::keld_system((dir_ / "script").c_str());
  }

  ScratchDirectory dir_;
};

TEST_F(Command, QuotedWordsAreOneArgumentWithoutTheQuotes) {
  EXPECT_EQ(arguments("\"two words\" last"), (string_list{"two words", "last"}));
}

TEST_F(Command, ArgumentsFollowTheQuotingRules) {
  struct Case {
    const char* why;
    const char* rest;
    string_list arguments;
  };
  const Case kCases[] = {
      {"no arguments", "", {}},
      {"runs of blanks", "  a   b  ", {"a", "b"}},
      {"a tab alone does not split", "a\tb", {"a\tb"}},
      {"single quotes", "'two words' last", {"two words", "last"}},
      {"a tab between quotes and the quotes stay", "\"a\tb\" last", {"\"a\tb\"", "last"}},
      {"a quoted single word keeps its quotes", "\"word\" 'word'", {"\"word\"", "'word'"}},
      {"empty arguments", "\"\" '' last", {"", "", "last"}},
      {"text after two quotes is dropped", "\"\"word last", {"", "last"}},
      {"blanks at the quotes are lost", "\" two words \"", {"two words"}},
      {"blanks inside are kept", "\"two   words\"", {"two   words"}},
      {"quotes become blanks in the middle", "a\"b c\"d", {"a b c d"}},
      {"an apostrophe ends the double quotes", "\"it's a b\" c", {"\"it's", "a", "b  c"}},
      {"the other quote ends the part", "\"two words' last", {"two words", "last"}},
      {"an unclosed quote", "\"two words", {"two words"}},
      {"no shell", "$HOME *;>file `a` \\", {"$HOME", "*;>file", "`a`", "\\"}},
  };
  for (const Case& c : kCases) EXPECT_EQ(arguments(c.rest), c.arguments) << c.why;
}

TEST_F(Command, AnApostropheInDoubleQuotesQuotesTheTextAfterThem) {
  EXPECT_EQ(arguments("\"it's\" a b"), (string_list{"it s  a b"}));
}

TEST_F(Command, ACommandLineOfOneQuotedPartKeepsItsQuotesAndGetsLineFeeds) {
  const ScopedVariable path("PATH", dir_.path().c_str());
  write_script(dir_ / "\"two\nwords\"", "exit 5");
  EXPECT_EQ(exit_code(CUnixHelper::keld_system("\"two words\"")), 5);
}

TEST_F(Command, BlanksAroundTheCommandLineAreIgnored) {
  EXPECT_EQ(CUnixHelper::keld_system(("  " + program() + " a  ").c_str()), 0);
  EXPECT_EQ(arguments_of_last_run(), (string_list{"a"}));
}

TEST_F(Command, ThereMayBeManyLongArguments) {
  string_list many;
  std::string rest;
  for (int i = 0; i < 200; ++i) {
    many.push_back(std::to_string(i) + std::string(100, 'a'));
    rest += many.back() + " ";
  }
  EXPECT_EQ(arguments(rest), many);
}

TEST_F(Command, TheProgramIsLookedUpOnPathAndKeepsItsName) {
  write_file(dir_ / "script", "tr '\\0' ' ' < /proc/$$/cmdline > " + (dir_ / "out") + "\n");
  EXPECT_EQ(CUnixHelper::keld_system(("sh " + (dir_ / "script") + " a").c_str()), 0);
  EXPECT_EQ(read_file(dir_ / "out"), "sh " + (dir_ / "script") + " a ");
}

TEST_F(Command, TheEnvironmentIsInherited) {
  const ScopedVariable variable("LD_LIBRARY_PATH", "/opt/agent");
  EXPECT_EQ(exit_code(status_of("test \"$LD_LIBRARY_PATH\" = /opt/agent && exit 9")), 9);
}

TEST_F(Command, TheResultIsTheRawWaitStatus) {
  EXPECT_EQ(status_of("exit 0"), 0);
  EXPECT_EQ(status_of("exit 7"), 7 << 8);
  EXPECT_EQ(status_of("exit 255"), 255 << 8);
  const int killed = status_of("kill -9 $$");
  EXPECT_TRUE(WIFSIGNALED(killed));
  EXPECT_EQ(WTERMSIG(killed), SIGKILL);
}

TEST_F(Command, AProgramThatIsNotOnPathExitsWith127) {
  EXPECT_EQ(exit_code(CUnixHelper::keld_system("no-such-program-anywhere a b")), kCannotExecute);
}

TEST_F(Command, AnAbsoluteProgramThatDoesNotExistExitsWith127) {
  EXPECT_EQ(exit_code(CUnixHelper::keld_system((dir_ / "missing").c_str())), kCannotExecute);
}

TEST_F(Command, AFileThatIsNotAProgramExitsWith127) {
  write_file(dir_ / "text", "text");
  EXPECT_EQ(exit_code(CUnixHelper::keld_system((dir_ / "text").c_str())), kCannotExecute);
  EXPECT_EQ(exit_code(CUnixHelper::keld_system(dir_.path().c_str())), kCannotExecute);
  EXPECT_EQ(exit_code(CUnixHelper::keld_system("")), kCannotExecute);
  EXPECT_EQ(exit_code(CUnixHelper::keld_system("\"\" a")), kCannotExecute);
}

TEST_F(Command, BufferedOutputOfTheCallerIsWrittenOnce) {
  std::FILE* const output = std::fopen((dir_ / "output").c_str(), "w");
  ASSERT_NE(output, nullptr);
  EXPECT_GE(std::fputs("buffered", output), 0);
  EXPECT_EQ(exit_code(CUnixHelper::keld_system((dir_ / "missing").c_str())), kCannotExecute);
  EXPECT_EQ(std::fclose(output), 0);
  EXPECT_EQ(read_file(dir_ / "output"), "buffered");
}

TEST_F(Command, NullGivesMinusOne) { EXPECT_EQ(CUnixHelper::keld_system(nullptr), -1); }

TEST_F(Command, WithoutPathOnlyAbsoluteProgramsAreStarted) {
  const ScopedVariable path("PATH", nullptr);
  EXPECT_EQ(CUnixHelper::keld_system("sh"), -1);
  EXPECT_EQ(arguments("a"), (string_list{"a"}));
}

TEST_F(Command, AnAbsolutePathThatDoesNotFitGivesMinusOne) {
  EXPECT_EQ(CUnixHelper::keld_system(("/" + std::string(254, 'a')).c_str()), -1);
}

TEST_F(Command, TheWaitContinuesAfterInterruptions) {
  const Interruptions interruptions;
  EXPECT_EQ(exit_code(status_of("sleep 0.05; exit 3")), 3);
  EXPECT_GT(Interruptions::count(), 0);
}

TEST_F(Command, AChildThatCannotBeWaitedForGivesMinusOne) {
  EXPECT_EQ(run_in_child([this] {
              (void)::signal(SIGCHLD, SIG_IGN);  // the kernel then discards the wait status
              EXPECT_EQ(CUnixHelper::keld_system(program().c_str()), -1);
              EXPECT_FALSE(CUnixHelper::system("true"));
            }),
            0);
}

TEST_F(Command, AChildThatCannotBeStartedGivesMinusOne) {
  if (!test_support::in_private_namespace()) GTEST_SKIP() << kNoNamespaces;
  EXPECT_EQ(run_in_child([this] {
              // fork() fails in a PID namespace whose first process has ended.
              ASSERT_EQ(::unshare(CLONE_NEWPID), 0);
              ASSERT_EQ(CUnixHelper::keld_system(program().c_str()), 0);
              EXPECT_EQ(CUnixHelper::keld_system(program().c_str()), -1);
            }),
            0);
}

TEST_F(Command, TheShellRunsACommandLine) {
  EXPECT_TRUE(CUnixHelper::system((program() + " 'two words' \"$((1 + 1))\"").c_str()));
  EXPECT_EQ(arguments_of_last_run(), (string_list{"two words", "2"}));
}

TEST_F(Command, TheShellsExitCodeIsIgnored) {
  EXPECT_TRUE(CUnixHelper::system("true"));
  EXPECT_TRUE(CUnixHelper::system("exit 3"));
  EXPECT_TRUE(CUnixHelper::system("exit 127"));
}

TEST_F(Command, AShellEndedByASignalFails) {
  EXPECT_FALSE(CUnixHelper::system("kill -9 $$"));
  EXPECT_FALSE(CUnixHelper::system("kill -15 $$"));
  EXPECT_FALSE(CUnixHelper::system(nullptr));
}

// Copying and moving files.

using Copier = int (*)(const char* source, const char* target);

struct NamedCopier {
  const char* name;
  Copier copy;
  bool moves;
};

/// Tests of both cp_file and replace_file.
class Copy : public testing::TestWithParam<NamedCopier> {
 protected:
  [[nodiscard]] int copy(const std::string& source, const std::string& target) const {
    return GetParam().copy((dir_ / source).c_str(), (dir_ / target).c_str());
  }

  /// Expects these names in the directory, and "source" if it is kept.
  void expect_names(string_list names) const {
    if (!GetParam().moves) names.insert(names.begin(), "source");
    EXPECT_EQ(names_in(dir_.path()), names);
  }

  ScratchDirectory dir_;
};

TEST_P(Copy, ReplacesAnExistingTargetCompletely) {
  write_file(dir_ / "source", "new");
  write_file(dir_ / "target", "old contents that are longer");
  EXPECT_EQ(copy("source", "target"), 1);
  EXPECT_EQ(read_file(dir_ / "target"), "new");
  expect_names({"target"});
}

TEST_P(Copy, GivesThePermissionsOfANewFile) {
  write_script(dir_ / "source", "");
  const ScopedUmask umask(007);
  EXPECT_EQ(copy("source", "target"), 1);
  EXPECT_EQ(mode_of(dir_ / "target"), 0660U);
}

TEST_P(Copy, LosesTheTargetIfTheSourceIsMissing) {
  write_file(dir_ / "target", "old");
  EXPECT_EQ(copy("missing", "target"), 0);
  EXPECT_EQ(names_in(dir_.path()), string_list());
}

TEST_P(Copy, FailsIfTheTargetCannotBeDeletedAndKeepsTheSource) {
  write_file(dir_ / "source", "new");
  ASSERT_EQ(::mkdir((dir_ / "directory").c_str(), 0755), 0);
  EXPECT_EQ(copy("source", "directory"), 0);
  EXPECT_EQ(names_in(dir_.path()), (string_list{"directory", "source"}));
}

TEST_P(Copy, TreatsAReadErrorAsTheEndOfTheFile) {
  write_file(dir_ / "source", std::string(200000, 'a'));
  {
    const ScopedFault fault(Fault::kReadFails, 150000);
    EXPECT_EQ(copy("source", "target"), 1);
  }
  EXPECT_EQ(read_file(dir_ / "target").size(), 150000U);
  expect_names({"target"});
}

TEST_P(Copy, CopiesADirectoryAsAnEmptyFile) {
  ASSERT_EQ(::mkdir((dir_ / "directory").c_str(), 0755), 0);
  EXPECT_EQ(copy("directory", "target"), 1);
  EXPECT_EQ(read_file(dir_ / "target"), "");
  EXPECT_EQ(names_in(dir_.path()), (string_list{"directory", "target"}));
}

INSTANTIATE_TEST_SUITE_P(File, Copy,
                         testing::Values(NamedCopier{"cp_file", CUnixHelper::cp_file, false},
                                         NamedCopier{"replace_file", CUnixHelper::replace_file,
                                                     true}),
                         test_support::case_name);

}  // namespace
