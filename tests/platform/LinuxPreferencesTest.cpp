#include "platform/linux/LinuxPreferences.h"

#include <gtest/gtest.h>

#include "Common Sources/PropertyListFiles.h"
#include "platform/linux/LinuxSystem.h"
#include "tests/platform/Installation.h"

namespace vardell {
namespace {

class LinuxPreferencesTest : public testing::Test {
 protected:
  LinuxPreferencesTest() { QDir().mkpath(installed_.Path("Library/Preferences")); }
  QString File() const {
    return installed_.Path("Library/Preferences/com.brenwick.vardell5.plist");
  }
  const QString key_ = QStringLiteral("Configuration");
  test::Installation installed_;
  LinuxPreferences preferences_;
};

TEST_F(LinuxPreferencesTest, AreWhatTheFileHeldAtTheLastSynchronize) {
  EXPECT_TRUE(preferences_.Synchronize()) << "no file is no fault";
  EXPECT_FALSE(preferences_.Value(key_));
  ASSERT_EQ(WritePropertyListToPath(QVariantMap{{key_, 2}}, File(), true), 0);
  EXPECT_FALSE(preferences_.Value(key_));
  EXPECT_TRUE(preferences_.Synchronize());
  EXPECT_EQ(preferences_.Value(key_)->toInt(), 2);
  QFile::remove(File());
  EXPECT_TRUE(preferences_.Synchronize());
  EXPECT_FALSE(preferences_.Value(key_));
}

TEST_F(LinuxPreferencesTest, OfABrokenFileStayWhatTheyWere) {
  ASSERT_EQ(WritePropertyListToPath(QVariantMap{{key_, 2}}, File(), true), 0);
  ASSERT_TRUE(preferences_.Synchronize());
  for (const char* text : {"", "no property list", "<plist><array/></plist>"}) {
    installed_.Write(File(), text);
    EXPECT_FALSE(preferences_.Synchronize()) << text;
    EXPECT_EQ(preferences_.Value(key_)->toInt(), 2) << text;
  }
}

TEST(LinuxSystem, TellsTheAccountWhateverTheEnvironmentSays) {
  setenv("USER", "somebody", 1);
  setenv("LOGNAME", "somebody", 1);
  EXPECT_EQ(LinuxSystem().UserShortName(), QString::fromUtf8(getpwuid(getuid())->pw_name));
  EXPECT_EQ(LinuxSystem().Version().major, 10);
  EXPECT_EQ(LinuxSystem().Version().minor, 10);
}

}  // namespace
}  // namespace vardell
