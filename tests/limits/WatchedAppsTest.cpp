#include "limits/WatchedApps.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QTemporaryDir>
#include <tuple>

#include "Common Sources/FileSystem.h"
#include "limits/ApplicationIdentifier.h"
#include "link/VardellLoader.h"
#include "platform/HotKeys.h"
#include "tests/support/FakeProcesses.h"
#include "tests/support/FakeServiceDiscovery.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/RecordingServer.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

ApplicationInfo Bundle(const QString& identifier, const QString& name = u"Game"_s) {
  return {u"/usr/share/applications/x.desktop"_s, true, identifier, 0, {}, name};
}

ApplicationInfo Executable(std::optional<std::uint32_t> creator) {
  return {u"/opt/a b"_s, false, {}, 0, creator, u"a b"_s};
}

TEST(ApplicationIdentifier, IsMadeOfWhatThereIs) {
  ApplicationInfo nameless{u"/x"_s, true, {}, FourCharCode("APPL"), FourCharCode("abcd"), {}};
  ApplicationInfo creatorless = nameless;
  creatorless.creatorCode.reset();
  ApplicationInfo unprintable = nameless;
  unprintable.typeCode = 0x00FF80E9;
  const std::tuple<const char*, ApplicationInfo, std::optional<QString>> kRows[] = {
      {"a bundle's own", Bundle(u"org.game"_s), u"org.game"_s},
      {"type and creator, each reversed", nameless, u"com.brenwick.unknownapp.LPPAdcba"_s},
      {"an unknown creator", creatorless, u"com.brenwick.unknownapp.LPPA????"_s},
      {"eight characters, printable or not", unprintable,
       u"com.brenwick.unknownapp.\u00E9\u0080\u00FF"_s + QChar(0) + u"dcba"_s},
      {"an executable's creator in order", Executable(FourCharCode("game")),
       u"com.brenwick.fakeID.game"_s},
      {"with blanks", Executable(FourCharCode("vi  ")), u"com.brenwick.fakeID.vi  "_s},
      {"beyond ASCII", Executable(0xE9000001),
       u"com.brenwick.fakeID.\u00E9"_s + QChar(0) + QChar(0) + QChar(1)},
      {"nothing", Executable({}), std::nullopt},
  };
  for (const auto& [behaviour, application, identifier] : kRows)
    EXPECT_EQ(MakeApplicationIdentifier(application), identifier) << behaviour;
}

class WatchedApps : public ::testing::Test {
 protected:
  WatchedApps() {
    discovery.daemonRuns = false;
    link.second = std::chrono::milliseconds(200);
    link.pinnedServer = [this] { return std::optional(address); };
  }

  // ---- vocabulary
  WatchContext Context(bool lastMinuteCredit = true) {
    return {link, processes, system, user, lastMinuteCredit, loginPid};
  }
  bool Add(const ApplicationInfo& application, std::int32_t pid, bool lastMinuteCredit = true) {
    return AddWatchedApp(Context(lastMinuteCredit), processes.Run(application, pid), table);
  }
  // "identifier pid credit" of each entry.
  QStringList Table() const {
    QStringList rows;
    for (const WatchedAppPtr& entry : table) {
      const QString pid = QString::number(entry->pid);
      rows << entry->identifier + u' ' + pid + u' ' + QString::number(entry->limits.credit);
    }
    return rows;
  }
  QStringList Frames() {
    QStringList told;
    for (const auto& frame : server.TakeFrames())
      told << u"%1 %2"_s.arg(frame.kind).arg(frame.identifier);
    return told;
  }

  test::RecordingServer server;
  QString address = server.Address();
  FakeServiceDiscovery discovery;
  ServerLink link{discovery};
  FakeProcesses processes;
  FakeSystem system;
  QString user = u"anna"_s;
  std::int32_t loginPid = 0;
  WatchedAppTable table;
  const QString game = u"org.game"_s;
  const QString unknown = QString::fromLatin1(kUnknownApplicationIdentifier);
  const QString session = QString::fromLatin1(kLoginWindowIdentifier);
};

TEST_F(WatchedApps, AnApplicationIsAnnouncedThenFetchedThenAdded) {
  server.AnswerCredit(game, 7);
  EXPECT_TRUE(Add(Bundle(game), 40));
  EXPECT_EQ(Table(), QStringList{u"org.game 40 7"_s});
  EXPECT_EQ(Frames(), (QStringList{u"3 org.game"_s, u"1 org.game"_s}));
  EXPECT_EQ(table[0]->displayName, u"Game"_s);
}

TEST_F(WatchedApps, SpentCreditEntersAsALastMinuteOrAsItsEnd) {
  for (const int credit : {0, -5}) {
    server.AnswerCredit(game, credit);
    EXPECT_TRUE(Add(Bundle(game), 40, true));
    EXPECT_TRUE(Add(Bundle(game), 41, false));
    EXPECT_EQ(Table(), (QStringList{u"org.game 40 1"_s, u"org.game 41 12345"_s}));
    table.clear();
  }
}

TEST_F(WatchedApps, WhatIsThereAlreadyIsNotAskedAbout) {
  server.AnswerCredit(game, 7);
  server.AnswerCredit(unknown, 7);
  EXPECT_TRUE(Add(Bundle(game), 40));
  EXPECT_TRUE(Add(Executable({}), 50));
  (void)Frames();
  EXPECT_FALSE(Add(Bundle(game), 40));
  EXPECT_FALSE(Add(Executable({}), 51)) << "all unknown ones are one entry";
  EXPECT_EQ(Frames(), QStringList());

  EXPECT_TRUE(Add(Bundle(game), 42)) << "a second process of the application";
  server.AnswerCredit(u"org.other"_s, 1);
  EXPECT_TRUE(Add(Bundle(u"org.other"_s), 40)) << "a process that became another";
  EXPECT_EQ(table.size(), 4u);
}

TEST_F(WatchedApps, AnApplicationWithoutANameIsWatchedButCannotBeKilled) {
  server.AnswerCredit(unknown, 3);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(Add(Executable({}), 50));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Unable to watch application at file:///opt/a%20b\n");
  EXPECT_EQ(Table(), QStringList{u"com.tovmark.unknownapp 0 3"_s});
}

TEST_F(WatchedApps, TheLoginWindowStandsForTheComputerWithThePidOfTheSystemsVersion) {
  QTemporaryDir folder;
  const QByteArray ps = folder.filePath(u"ps"_s).toUtf8();
  ASSERT_EQ(StoreFile(ps, "#!/bin/sh\necho 'root 99 WindowServer'\n"), 0);
  ASSERT_EQ(::chmod(ps.constData(), 0700), 0);
  const QByteArray path = qgetenv("PATH");
  qputenv("PATH", folder.path().toUtf8() + ":" + path);
  const std::tuple<SystemVersion, std::int32_t, const char*> kRows[] = {
      {{10, 10}, 77, ""},
      {{10, 11}, 99, "Login pid is 99\n"},
      {{11, 0}, 77, ""},
  };
  server.AnswerCredit(session, 30);
  for (const auto& [version, pid, printed] : kRows) {
    SCOPED_TRACE(testing::Message() << version.major << "." << version.minor);
    system.version = version;
    table.clear();
    testing::internal::CaptureStderr();
    EXPECT_TRUE(Add(Bundle(session, u"Login"_s), 77));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), printed);
    EXPECT_EQ(loginPid, pid);
    EXPECT_EQ(Table(), QStringList{u"com.apple.loginwindow %1 30"_s.arg(pid)});
    EXPECT_EQ(table[0]->displayName, u"computer"_s);
  }
  qputenv("PATH", path);
}

TEST_F(WatchedApps, FillingOffersEverythingThatRunsAndTheGlobalSettings) {
  server.AnswerCredit(game, 7);
  server.AnswerCredit(session, 30);
  server.Answer(QString::fromLatin1(kGlobalSettingsIdentifier), {{u"DQ Enabled"_s, true},
                                                                 {u"DQ Value"_s, 500},
                                                                 {u"Credit"_s, 9},
                                                                 {u"WD Curfew Enabled"_s, true}});
  processes.Run(Bundle(session), 77);
  processes.Run(Bundle(game), 40);
  processes.Run(Bundle(u"org.unlimited"_s), 41);
  FillWatchedApps(Context(), table);
  EXPECT_EQ(Table(), (QStringList{u"com.apple.loginwindow 77 30"_s, u"org.game 40 7"_s,
                                  u"com.brenwick.globalSettings 0 0"_s}));
  const WatchedApp& settings = *table.back();
  EXPECT_EQ(settings.limits.diskQuotaEnabled, 1);
  EXPECT_EQ(settings.limits.diskQuotaValue, 500);
  EXPECT_EQ(settings.limits.weekDayCurfewEnabled, 0);
  EXPECT_EQ(settings.limits.weekDayStop, 0);
}

TEST_F(WatchedApps, ARefreshTakesTheServersLimits) {
  const std::tuple<const char*, int, bool, bool, int> kRows[] = {
      {"credit that is left", 3, true, true, 3},
      {"a last minute", 0, true, true, 1},
      {"no last minute wanted", 0, true, false, kSpentCredit},
      {"the last minute was used", 0, false, true, 0},
      {"below nothing, last minute used", -2, false, false, -2},
  };
  for (const auto& [behaviour, fetched, lastMinuteAllowed, lastMinuteCredit, credit] : kRows) {
    SCOPED_TRACE(behaviour);
    server.AnswerCredit(game, fetched);
    WatchedApp entry;
    entry.identifier = game;
    entry.pid = 40;
    entry.ticks = 60;
    entry.lastMinuteUsed = true;
    entry.displayName = u"Game"_s;
    entry.limits.weekDayCurfewEnabled = 1;
    EXPECT_FALSE(RefreshWatchedApp(Context(lastMinuteCredit), entry, lastMinuteAllowed));
    EXPECT_EQ(entry.limits.credit, credit);
    EXPECT_EQ(entry.limits.weekDayCurfewEnabled, 0);
    EXPECT_EQ(entry.ticks, 0u);
    EXPECT_EQ(entry.pid, 40);
    EXPECT_TRUE(entry.lastMinuteUsed);
    EXPECT_EQ(entry.displayName, u"Game"_s);
  }
}

TEST_F(WatchedApps, RemovesByPidAndLetsTheSecondNeighbourLive) {
  for (const auto& [identifier, pid] : {std::pair("a", 1), {"b", 1}, {"c", 2}, {"d", 1}}) {
    table.push_back(std::make_shared<WatchedApp>());
    table.back()->identifier = QLatin1String(identifier);
    table.back()->pid = pid;
  }
  const WatchedAppPtr shown = table[0];
  RemoveWatchedAppsWithPid(1, table);
  EXPECT_EQ(Table(), (QStringList{u"b 1 0"_s, u"c 2 0"_s}));
  EXPECT_EQ(shown->identifier, u"a"_s) << "an alert's entry stays valid";
  RemoveWatchedAppForProcess({2, 5}, table);
  EXPECT_EQ(Table(), QStringList{u"b 1 0"_s});
  EXPECT_EQ(FindWatchedApp(table, u"b"_s), table[0]);
  EXPECT_EQ(FindWatchedApp(table, u"B"_s), nullptr);
  table[0]->pid = 0;
  RemoveWatchedAppForProcess({0, 0}, table);
  EXPECT_EQ(table.size(), 1u) << "the login window without a leader";
}

// ---- What adds nothing ----

TEST_F(WatchedApps, NothingIsAddedAndARefreshTellsThatAnEntryMustGo) {
  server.Answer(game, {{u"Credit"_s, 5}});
  EXPECT_FALSE(Add(Bundle(game), 40)) << "not enabled";
  WatchedApp entry;
  entry.identifier = game;
  entry.ticks = 60;
  entry.limits.credit = 4;
  EXPECT_TRUE(RefreshWatchedApp(Context(), entry, true));
  EXPECT_EQ(entry.limits.credit, 4);
  EXPECT_EQ(entry.ticks, 60u);
  (void)Frames();
  EXPECT_FALSE(AddWatchedApp(Context(), {41, 1}, table)) << "no location";
  EXPECT_EQ(Frames(), QStringList());
  address.clear();
  link.shared.reset();
  EXPECT_FALSE(Add(Bundle(game), 42)) << "no Server";
  EXPECT_EQ(Table(), QStringList());
}

}  // namespace
}  // namespace vardell
