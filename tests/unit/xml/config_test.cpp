#include "xml/config.h"

#include <gtest/gtest.h>

#include <string>

#include "test_support.h"

namespace {

using config::get_config_var;

/// A config.xml in a scratch directory.
class Config : public testing::Test {
 protected:
  void write_document(const std::string& text) { test_support::write_file(path_, text); }

  void write_settings(const std::string& settings) {
    write_document("<norvak><Process><Data>" + settings + "</Data></Process></norvak>");
  }

  const test_support::ScratchDirectory scratch_;
  const std::string path_ = scratch_ / "config.xml";
};

TEST_F(Config, NamesAreThoseOfTheAgent) {
  EXPECT_STREQ(config::kUpdateHost, "update_host");
  EXPECT_STREQ(config::kUpdateType, "update_type");
  EXPECT_STREQ(config::kVersion, "version");
  EXPECT_STREQ(config::kKernelUpdateHost, "kernel_update_host");
  EXPECT_STREQ(config::kNginxUpdateHost, "nginx_update_host");
  EXPECT_STREQ(config::kSettings, "//norvak/Process/Data/var");
  EXPECT_STREQ(config::kName, "name");
  EXPECT_STREQ(config::kValue, "value");
}

TEST_F(Config, FindsASettingByItsName) {
  write_settings(
      "<var name=\"update_host\" value=\"http://127.0.0.1:8080\"/>"
      "<var name=\"version\" value=\"Linux_7.0.0.1\"/>");
  std::string value = "before";
  EXPECT_EQ(get_config_var(path_, "version", value), 0);
  EXPECT_EQ(value, "Linux_7.0.0.1");
  EXPECT_EQ(get_config_var(path_, "update_host"), "http://127.0.0.1:8080");
}

TEST_F(Config, TheFirstOfTwoSettingsOfOneNameCounts) {
  write_settings("<var name='version' value='1'/><var name='version' value='2'/>");
  EXPECT_EQ(get_config_var(path_, "version"), "1");
}

TEST_F(Config, NamesAreComparedWhole) {
  write_settings(
      "<var name='Version' value='1'/><var name='VERSION' value='2'/><var name='versio' value='3'/>"
      "<var name='version2' value='4'/><var name=' version' value='5'/><var name='' value='6'/>"
      "<var value='7'/><other name='version' value='8'/><var Name='version' value='9'/>");
  std::string value = "before";
  EXPECT_EQ(get_config_var(path_, "version", value), 0);
  EXPECT_EQ(value, "before");
  EXPECT_EQ(get_config_var(path_, "version"), "");
}

TEST_F(Config, ANameMayBeWrittenWithReferences) {
  write_settings("<var name='&#118;ersion' value='1'/>");
  EXPECT_EQ(get_config_var(path_, "version"), "1");
}

TEST_F(Config, AMissingSettingLeavesTheDefault) {
  for (const char* document :
       {"<norvak><Process><Data/></Process></norvak>",
        "<norvak><Process><Data> </Data></Process></norvak>", "<norvak/>", "<other/>"}) {
    write_document(document);
    std::string value = "before";
    EXPECT_EQ(get_config_var(path_, "version", value), 0) << document;
    EXPECT_EQ(value, "before") << document;
    EXPECT_EQ(get_config_var(path_, "version"), "") << document;
  }
}

TEST_F(Config, ASettingWithoutAValueIsEmpty) {
  write_settings("<var name='version'/><var name='version' value='second'/>");
  std::string value = "before";
  EXPECT_EQ(get_config_var(path_, "version", value), 0);
  EXPECT_EQ(value, "");
}

TEST_F(Config, SettingsAreDirectlyInData) {
  write_document(
      "<norvak><var name='version' value='1'/><Process><var name='version' value='2'/>"
      "<Data><group><var name='version' value='3'/></group>"
      "<var name='other'><var name='version' value='4'/></var></Data>"
      "<data><var name='version' value='5'/></data></Process>"
      "<Data><var name='version' value='6'/></Data></norvak>");
  std::string value = "before";
  EXPECT_EQ(get_config_var(path_, "version", value), 0);
  EXPECT_EQ(value, "before");
}

TEST_F(Config, TheNorvakElementMayBeAnywhere) {
  write_document(
      "<a><b/><norvak><Process><Data/><Data><var name='version' value='1'/></Data></Process>"
      "</norvak></a>");
  EXPECT_EQ(get_config_var(path_, "version"), "1");
}

TEST_F(Config, AMissingFileIsReported) {
  std::string value = "before";
  EXPECT_EQ(get_config_var(path_, "version", value), -1);
  EXPECT_EQ(value, "before");
  EXPECT_EQ(get_config_var(path_, "version"), "");
}

TEST_F(Config, AMalformedFileIsReported) {
  write_settings("<var name='version' value='1'/></Data>");
  std::string value = "before";
  EXPECT_EQ(get_config_var(path_, "version", value), -1);
  EXPECT_EQ(value, "before");
  EXPECT_EQ(get_config_var(path_, "version"), "");
}

TEST_F(Config, TheFileIsReadAgainAtEveryCall) {
  write_settings("<var name='version' value='1'/>");
  EXPECT_EQ(get_config_var(path_, "version"), "1");
  write_settings("<var name='version' value='2'/>");
  EXPECT_EQ(get_config_var(path_, "version"), "2");
}

}  // namespace
