#include "platform/linux/LinuxPreferences.h"

#include <gtest/gtest.h>

#include "Common Sources/PropertyListFiles.h"
#include "platform/linux/LinuxSystem.h"
#include "tests/platform/Installation.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

TEST(LinuxPreferences, AreWhatTheLastFileHeldThatCouldBeRead) {
  const test::Installation installed;
  QDir().mkpath(installed.Path("Library/Preferences"));
  const QString file = installed.Path("Library/Preferences/com.brenwick.vardell5.plist");
  const QString key = u"Configuration"_s;
  LinuxPreferences preferences;
  EXPECT_TRUE(preferences.Synchronize()) << "no file is no fault";
  EXPECT_FALSE(preferences.Value(key));
  ASSERT_EQ(WritePropertyListToPath(QVariantMap{{key, 2}}, file, true), 0);
  EXPECT_FALSE(preferences.Value(key)) << "not asked to look yet";
  EXPECT_TRUE(preferences.Synchronize());
  EXPECT_EQ(preferences.Value(key)->toInt(), 2);
  for (const char* text : {"", "no property list", "<plist><array/></plist>"}) {
    installed.Write(file, text);
    EXPECT_FALSE(preferences.Synchronize()) << text;
    EXPECT_EQ(preferences.Value(key)->toInt(), 2) << text;
  }
  QFile::remove(file);
  EXPECT_TRUE(preferences.Synchronize());
  EXPECT_FALSE(preferences.Value(key));
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
