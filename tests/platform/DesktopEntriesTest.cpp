#include "platform/linux/DesktopEntries.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "Common Sources/Caps.h"
#include "tests/platform/Installation.h"
#include "tests/support/Waiting.h"

namespace vardell {
namespace {

using test::Installation;
using namespace Qt::StringLiterals;

std::optional<DesktopEntry> Parse(const QByteArray& lines) {
  return ParseDesktopEntry("[Desktop Entry]\nType=Application\n" + lines, {});
}

TEST(ParseDesktopEntry, RefusesWhatCannotBeStarted) {
  EXPECT_TRUE(Parse("Exec=/bin/true\nName=N\n"));
  EXPECT_TRUE(Parse("TryExec=true\nExec=/bin/true\nName=N\n"));
  for (const char* broken :
       {"Name=N\n", "Exec=/bin/true\n", "Exec=\nName=N\n", "Exec=/bin/true\nName=N\nHidden=true\n",
        "Exec=/bin/true\nName=N\nTryExec=/no/such/program\n", "Exec=/bin/true\nName=\xff\xfe\n",
        "[Other]\nExec=/bin/true\nName=N\n"})
    EXPECT_FALSE(Parse(broken)) << broken;
  EXPECT_FALSE(ParseDesktopEntry("[Desktop Entry]\nType=Link\nName=N\nExec=/bin/true\n", {}));
}

class DesktopEntriesTest : public testing::Test {
 protected:
  bool Has(const char* id) const { return entries_.ById(QString::fromUtf8(id)) != nullptr; }

  Installation installed_;
  DesktopEntries entries_{ApplicationFolders(QString::fromUtf8(getpwuid(getuid())->pw_dir))};
};

TEST_F(DesktopEntriesTest, SkipsBrokenOnesAndTakesNoMoreThanItsShareFromTheUser) {
  std::vector<std::string> own;
  for (std::size_t i = 0; i < kMaxUserDesktopEntries + 50; ++i) {
    own.push_back("own" + std::to_string(i));
    installed_.AddUserEntry(own.back().c_str(), "/bin/true");
  }
  const QString system = installed_.SystemFolder();
  installed_.Write(system + u"/broken.desktop"_s, "\xff[[[=\n=\0=");
  installed_.Write(system + u"/huge.desktop"_s, QByteArray(kMaxDesktopEntryBytes + 1, '#'));
  ASSERT_EQ(mkfifo((system + u"/pipe.desktop"_s).toUtf8(), 0600), 0);
  QDir().mkpath(system + u"/kde/deep"_s);
  installed_.AddSystemEntry("kde/deep/works", "/bin/true");
  ASSERT_TRUE(entries_.Update());
  EXPECT_TRUE(Has("kde-deep-works"));
  for (const char* id : {"broken", "huge", "pipe"}) EXPECT_FALSE(Has(id)) << id;
  EXPECT_EQ(std::count_if(own.begin(), own.end(), [this](auto& id) { return Has(id.c_str()); }),
            static_cast<std::ptrdiff_t>(kMaxUserDesktopEntries));
}

TEST_F(DesktopEntriesTest, AreTrustedAndComeFirstWhereOnlyTheSystemMayWriteThem) {
  const QByteArray program = installed_.AddProgram("bin/chess");
  installed_.AddSystemEntry("chess", "@/bin/chess");
  installed_.AddUserEntry("chess", "@/bin/chess", "Hidden=true");
  installed_.AddUserEntry("aaa", "@/bin/chess");
  installed_.AddSystemEntry("open", "/bin/true");
  ASSERT_EQ(chmod((installed_.SystemFolder() + u"/open.desktop"_s).toUtf8(), 0666), 0);
  entries_.Update();
  const DesktopEntries::List found = entries_.ByProgram(program, IdOfFile(program));
  ASSERT_EQ(found.size(), 2);
  EXPECT_EQ(found[0]->id, u"chess"_s);
  EXPECT_TRUE(found[0]->isTrusted);
  EXPECT_FALSE(found[1]->isTrusted);
  EXPECT_FALSE(entries_.ById(u"open"_s)->isTrusted);
}

TEST_F(DesktopEntriesTest, CannotPassForTheLoginWindow) {
  const char* const reserved[] = {"com.apple.loginwindow", "com.Apple.LoginWindow",
                                  "com.brenwick.globalSettings"};
  for (const char* id : reserved) installed_.AddUserEntry(id, "/bin/true");
  installed_.AddUserEntry("com.apple.other", "/bin/true");
  entries_.Update();
  for (const char* id : reserved) EXPECT_FALSE(Has(id)) << id;
  EXPECT_TRUE(Has("com.apple.other"));
}

TEST_F(DesktopEntriesTest, AreReadAgainWhenAFolderChanges) {
  const auto readUntil = [this](const char* id, bool has) {
    return test::WaitUntil([&] {
      entries_.Update();
      return Has(id) == has;
    });
  };
  installed_.AddSystemEntry("first", "/bin/true");
  EXPECT_TRUE(entries_.Update());
  installed_.AddSystemEntry("second", "/bin/true");
  EXPECT_TRUE(readUntil("second", true));
  QFile::remove(installed_.SystemFolder() + u"/first.desktop"_s);
  EXPECT_TRUE(readUntil("first", false));
  EXPECT_TRUE(test::WaitUntil([&] { return !entries_.Update(); }));
}

}  // namespace
}  // namespace vardell
