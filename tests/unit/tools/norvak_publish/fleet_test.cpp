#include "fleet.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "failure.h"

namespace {

using publish::FleetKernel;

constexpr char kHeader[] = "distribution,machine,release,count\n";

std::vector<FleetKernel> read(const std::string& text) {
  std::istringstream input(text);
  return publish::read_fleet(input, "fleet");
}

/// The kernels as text, for comparisons.
std::string kernels(const std::string& text) {
  std::string result;
  for (const FleetKernel& kernel : read(text)) {
    result += kernel.distribution + " " + kernel.machine + " " + kernel.release + " " +
              std::to_string(kernel.hosts) + "\n";
  }
  return result;
}

std::string failure(const std::string& text) {
  try {
    return "read: " + kernels(text);
  } catch (const publish::Failure& failure) {
    return failure.what();
  }
}

TEST(Fleet, IsReadFromCsv) {
  EXPECT_EQ(kernels(std::string(kHeader) +
                    "centos,x86_64,2.6.32-431.el6.x86_64,12\nsuse,i686,3.0.13-0.27-pae,1\n"),
            "centos x86_64 2.6.32-431.el6.x86_64 12\nsuse i686 3.0.13-0.27-pae 1\n");
}

TEST(Fleet, IsReadFromTheOutputOfTheHostTool) {
  const std::string host =
      R"({"machine":"x86_64","family":"centos","kernel_release":"2.6.32-431.el6.x86_64","more":[1]})";
  EXPECT_EQ(kernels(host + "\n" + host + "\n"), "centos x86_64 2.6.32-431.el6.x86_64 2\n");
}

TEST(Fleet, AddsUpTheHostsOfAKernel) {
  EXPECT_EQ(
      kernels(std::string(kHeader) + "centos,x86_64,b,12\nsuse,x86_64,b,5\ncentos,x86_64,b,1\n"),
      "centos x86_64 b 13\nsuse x86_64 b 5\n");
}

TEST(Fleet, IsReadAsSpreadsheetsWriteIt) {
  EXPECT_EQ(kernels("\xEF\xBB\xBF"
                    "distribution,machine,release,count\r\n"
                    "\"centos\",x86_64,\"a\",2\r\n\r\n"),
            "centos x86_64 a 2\n");
}

TEST(Fleet, MayBeEmpty) {
  EXPECT_EQ(kernels(""), "");
  EXPECT_EQ(kernels(kHeader), "");
}

TEST(Fleet, NeedsItsHeader) {
  EXPECT_EQ(failure("centos,x86_64,a,1\n"),
            "fleet, line 1: the header is not distribution,machine,release,count");
}

TEST(Fleet, NamesTheFirstInvalidLine) {
  const std::string good = std::string(kHeader) + "centos,x86_64,a,1\n";
  EXPECT_EQ(failure(good + "centos,x86_64,a\n"),
            "fleet, line 3: the fields are not distribution,machine,release,count");
  EXPECT_EQ(failure(good + "centos,x86_64,a,1,2\n"),
            "fleet, line 3: the fields are not distribution,machine,release,count");
  EXPECT_EQ(failure(good + "CentOS,x86_64,a,1\n"),
            "fleet, line 3: the distribution is neither centos nor suse nor ubuntu");
  for (const char* count : {"", "-1", "+1", " 1", "1 ", "1.5", "99999999999999999999"}) {
    EXPECT_EQ(failure(good + "centos,x86_64,a," + count + "\n"),
              "fleet, line 3: the count is not a number");
  }
}

TEST(Fleet, RefusesWhatUnameCannotReport) {
  const auto with_release = [](const std::string& release) {
    return failure(std::string(kHeader) + "centos,x86_64," + release + ",1\n");
  };
  const char* const refused = "fleet, line 2: the release is not a name that uname -r prints";
  EXPECT_EQ(with_release(""), refused);
  EXPECT_EQ(with_release(".."), refused);
  EXPECT_EQ(with_release("a/b"), refused);
  EXPECT_EQ(with_release("a b"), refused);
  EXPECT_EQ(with_release("a\xC3\xA4"), refused);
  EXPECT_EQ(with_release(std::string(65, 'a')), refused);
  EXPECT_EQ(with_release(std::string(64, 'a')),
            "read: centos x86_64 " + std::string(64, 'a') + " 1\n");
  EXPECT_EQ(failure(std::string(kHeader) + "centos,,a,1\n"),
            "fleet, line 2: the machine is not a name that uname -m prints");
}

TEST(Fleet, RefusesCountsThatDoNotAddUp) {
  EXPECT_EQ(
      failure(std::string(kHeader) + "centos,x86_64,a,18446744073709551615\nsuse,x86_64,b,1\n"),
      "fleet, line 3: the counts are too large");
}

TEST(Fleet, RefusesLinesThatDescribeNoHost) {
  EXPECT_EQ(failure("{"), "fleet, line 1: this is not a JSON object");
  EXPECT_EQ(failure("{}\n[]\n"), "fleet, line 1: this is not a host: it has no \"family\"");
  EXPECT_EQ(failure(R"({"family":"centos","machine":7,"kernel_release":"a"})"),
            "fleet, line 1: this is not a host: it has no \"machine\"");
  EXPECT_EQ(failure(R"({"family":"centos","machine":"x86_64","kernel_release":"a"})"
                    "\n[1]\n"),
            "fleet, line 2: this is not a JSON object");
}

TEST(Fleet, RefusesALineWithoutEnd) {
  EXPECT_EQ(failure(std::string((std::size_t{1} << 20) + 1, 'x')),
            "fleet, line 1: the line is too long");
}

TEST(FleetFile, HasToBeReadable) {
  EXPECT_THROW((void)publish::read_fleet_file("/nonexistent/fleet"), publish::Failure);
  EXPECT_THROW((void)publish::read_fleet_file("/"), publish::Failure);
}

}  // namespace
