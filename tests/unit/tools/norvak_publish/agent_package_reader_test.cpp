#include "agent_package_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using publish::AgentPackage;
using test_support::ScratchDirectory;

constexpr std::size_t kBlock = 512;
const std::string kEnd(2 * kBlock, '\0');
constexpr char kGoodScript[] = "#!/bin/sh\nexit 0\n";

std::string padded(std::string data) {
  data.resize((data.size() + kBlock - 1) / kBlock * kBlock);
  return data;
}

/// A member of a ustar archive, built by hand so that it may have any path.
std::string member(const std::string& path, const std::string& data, char type = '0',
                   const std::string& link = "") {
  std::string head(kBlock, '\0');
  const auto put = [&head](std::size_t offset, const std::string& text) {
    head.replace(offset, text.size(), text);
  };
  char size[12] = {};
  (void)std::snprintf(size, sizeof size, "%011zo", data.size());
  put(0, path);
  put(100, "0000644");
  put(108, "0000000");
  put(116, "0000000");
  put(124, size);
  put(136, "00000000000");
  put(148, std::string(8, ' '));
  head[156] = type;
  put(157, link);
  put(257, std::string("ustar\0"
                       "00",
                       8));
  unsigned int sum = 0;
  for (const char c : head) sum += static_cast<unsigned char>(c);
  char checksum[8] = {};
  (void)std::snprintf(checksum, sizeof checksum, "%06o", sum);
  put(148, std::string(checksum, 7));
  return head + padded(data);
}

std::string symbolic_link(const std::string& path, const std::string& target) {
  return member(path, "", '2', target);
}

std::string hard_link(const std::string& path, const std::string& target) {
  return member(path, "", '1', target);
}

class PackageReader : public testing::Test {
 protected:
  AgentPackage read_bytes(const std::string& bytes) {
    test_support::write_file(scratch_ / "package", bytes);
    return publish::read_agent_package(scratch_ / "package");
  }

  /// Reads a package of @a members with a script and an end.
  AgentPackage read(const std::string& members) {
    return read_bytes(member("update", kGoodScript) + members + kEnd);
  }

  ScratchDirectory scratch_;
};

TEST_F(PackageReader, FindsNothingWrongWithAGoodPackage) {
  const AgentPackage package =
      read(member("payload/bin/agent", std::string(70000, 'x')) + symbolic_link("lib/a", "../b"));
  EXPECT_EQ(package.damage, "");
  EXPECT_TRUE(package.has_end);
  EXPECT_TRUE(package.has_script);
  EXPECT_FALSE(package.script_has_carriage_return);
  EXPECT_FALSE(package.version);
  EXPECT_EQ(package.outside, std::vector<std::string>());
  EXPECT_TRUE(package.configs.empty());
}

TEST_F(PackageReader, FindsTheScriptOnlyAtTheTop) {
  EXPECT_TRUE(read_bytes(member("./update", "") + kEnd).has_script);
  EXPECT_FALSE(read_bytes(member("agent/update", "") + kEnd).has_script);
  EXPECT_FALSE(read_bytes(member("update/", "", '5') + kEnd).has_script);
  EXPECT_FALSE(read_bytes(symbolic_link("update", "install.sh") + kEnd).has_script);
  EXPECT_FALSE(read_bytes(member("Update", "") + kEnd).has_script);
}

TEST_F(PackageReader, ReportsACarriageReturnAfterTheInterpreter) {
  const auto has_carriage_return = [this](const std::string& script) {
    return read_bytes(member("update", script) + kEnd).script_has_carriage_return;
  };
  EXPECT_TRUE(has_carriage_return("#!/bin/sh\r\nexit 0\r\n"));
  EXPECT_TRUE(has_carriage_return("#!/bin/sh\r"));
  EXPECT_FALSE(has_carriage_return("#!/bin/sh\nprintf '\r'\n"));
  EXPECT_FALSE(has_carriage_return("exit 0\r\n"));
}

TEST_F(PackageReader, ReadsTheVersionThatTheScriptRecords) {
  const auto version = [this](const std::string& script) {
    return read_bytes(member("update", script) + kEnd).version;
  };
  EXPECT_EQ(version("#!/bin/sh\n# norvak-package-version: abcdef3.1.10\nexit 0\n"), "abcdef3.1.10");
  EXPECT_EQ(version("#!/bin/sh\necho '# norvak-package-version: abcdef3.1.10'\n"), std::nullopt);
  EXPECT_EQ(version(kGoodScript), std::nullopt);
}

TEST_F(PackageReader, ReportsAFileThatIsNotAnArchive) {
  EXPECT_NE(read_bytes("").damage, "");
  EXPECT_NE(read_bytes("<html>404 Not Found</html>\n").damage, "");
  EXPECT_NE(publish::read_agent_package(scratch_ / "missing").damage, "");
}

TEST_F(PackageReader, ReportsATruncatedArchive) {
  const std::string package =
      member("update", kGoodScript) + member("data", std::string(3000, 'x')) + kEnd;
  EXPECT_EQ(read_bytes(package).damage, "");
  EXPECT_NE(read_bytes(package.substr(0, 2 * kBlock + kBlock + 100)).damage, "");
  EXPECT_FALSE(read_bytes(package.substr(0, 2 * kBlock)).has_end);
  EXPECT_FALSE(read_bytes(package.substr(0, package.size() - kEnd.size())).has_end);
}

TEST_F(PackageReader, ReportsDamageInTheMiddle) {
  std::string package = member("update", kGoodScript) + member("data", "x") + kEnd;
  package[2 * kBlock + 5] ^= 1;  // in the second head, whose checksum then fails
  EXPECT_NE(read_bytes(package).damage, "");
}

TEST_F(PackageReader, ReportsPathsThatLeaveThePackage) {
  EXPECT_EQ(read(member("/etc/passwd", "x")).outside, std::vector<std::string>{"/etc/passwd"});
  EXPECT_EQ(read(member("a/../../b", "x")).outside, std::vector<std::string>{"a/../../b"});
  EXPECT_EQ(read(member("a..b/..c", "x")).outside, std::vector<std::string>());
}

TEST_F(PackageReader, ReportsLinksThatLeaveThePackage) {
  const auto outside = [this](const std::string& link) { return read(link).outside.size(); };
  EXPECT_EQ(outside(symbolic_link("a", "/etc")), 1U);
  EXPECT_EQ(outside(symbolic_link("a", "..")), 1U);
  EXPECT_EQ(outside(symbolic_link("a/b", "../c")), 0U);
  EXPECT_EQ(outside(symbolic_link("./a/b", "./../c")), 0U);
  EXPECT_EQ(outside(symbolic_link("a/b", "../../c")), 1U);
  EXPECT_EQ(outside(symbolic_link("a/b", "c/../../../d")), 1U);
  EXPECT_EQ(outside(hard_link("a/b", "../c")), 1U);
  EXPECT_EQ(outside(hard_link("a/b", "c/d")), 0U);
  EXPECT_EQ(outside(hard_link("a/b", "/c")), 1U);
}

TEST_F(PackageReader, ReportsAtMostTwentyBadPaths) {
  std::string members;
  for (int i = 0; i < 100; ++i) members += member("/x", "");
  EXPECT_EQ(read(members).outside.size(), 20U);
}

std::string config_with(const std::string& names) {
  std::string settings;
  for (std::size_t begin = 0; begin < names.size();) {
    const std::size_t end = std::min(names.find(' ', begin), names.size());
    settings += "<var name=\"" + names.substr(begin, end - begin) + "\" value=\"\"/>";
    begin = end + 1;
  }
  return "<norvak><Process><Data>" + settings + "</Data></Process></norvak>";
}

TEST_F(PackageReader, ReadsThePackagedConfiguration) {
  const AgentPackage package = read(
      member("payload/config.xml",
             config_with("update_host update_type version kernel_update_host nginx_update_host")));
  ASSERT_EQ(package.configs.size(), 1U);
  EXPECT_EQ(package.configs[0].member, "payload/config.xml");
  EXPECT_TRUE(package.configs[0].is_readable);
  EXPECT_EQ(package.configs[0].missing_settings, std::vector<std::string>());
}

TEST_F(PackageReader, ReportsTheSettingsThatAPackagedConfigurationLacks) {
  const AgentPackage package =
      read(member("config.xml", config_with("update_host update_type kernel_update_host")));
  ASSERT_EQ(package.configs.size(), 1U);
  EXPECT_EQ(package.configs[0].missing_settings,
            (std::vector<std::string>{"version", "nginx_update_host"}));
}

TEST_F(PackageReader, ReportsAPackagedConfigurationThatIsNotWellFormed) {
  const AgentPackage package = read(member("config.xml", "<norvak><Process>"));
  ASSERT_EQ(package.configs.size(), 1U);
  EXPECT_FALSE(package.configs[0].is_readable);
}

}  // namespace
