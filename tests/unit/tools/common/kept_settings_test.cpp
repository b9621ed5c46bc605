#include "common/kept_settings.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using tools::KeptSettings;

const KeptSettings kKept = {"abcdef3.1.9", "0", "abcdef3.1.10"};

class KeptSettingsTest : public testing::Test {
 protected:
  /// The names of the settings that are lost in a config.xml with these values.
  std::vector<std::string> lost(const std::string& version, const std::string& update_type,
                                const KeptSettings& kept = kKept) {
    const std::string path = dir_ / "config.xml";
    std::ofstream(path) << "<norvak><Process><Data><var name=\"version\" value=\"" << version
                        << "\"/><var name=\"update_type\" value=\"" << update_type
                        << "\"/></Data></Process></norvak>";
    std::vector<std::string> names;
    for (const tools::LostSetting& setting : tools::lost_settings(kept, path)) {
      names.push_back(setting.name + "=" + setting.expected + " not " + setting.found);
    }
    return names;
  }

  test_support::ScratchDirectory dir_;
};

using Names = std::vector<std::string>;

TEST_F(KeptSettingsTest, NothingIsLostBeforeAndAfterTheUpdate) {
  EXPECT_EQ(lost("abcdef3.1.9", "0"), Names());
  EXPECT_EQ(lost("abcdef3.1.10", "0"), Names());
}

TEST_F(KeptSettingsTest, NothingIsLostOnceALaterVersionIsInstalled) {
  EXPECT_EQ(lost("abcdef3.2.0", "0"), Names());
}

TEST_F(KeptSettingsTest, TheSettingsOfThePackageAreNotThoseOfTheHost) {
  EXPECT_EQ(lost("abcdef0.0.0", "1"),
            Names({"version=abcdef3.1.10 not abcdef0.0.0", "update_type=0 not 1"}));
}

TEST_F(KeptSettingsTest, WithoutAnOfferedVersionTheOldOneIsExpected) {
  const KeptSettings kept = {"abcdef3.1.9", "0", ""};
  EXPECT_EQ(lost("abcdef3.1.10", "0", kept), Names({"version=abcdef3.1.9 not abcdef3.1.10"}));
}

TEST_F(KeptSettingsTest, AVersionThatIsTooShortIsLost) {
  EXPECT_EQ(lost("", "0"), Names({"version=abcdef3.1.10 not "}));
}

TEST_F(KeptSettingsTest, AnUnreadableConfigurationGivesNoAnswer) {
  EXPECT_TRUE(tools::lost_settings(kKept, dir_ / "missing").empty());
}

}  // namespace
