#include "core/EnforcementTick.h"

#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <optional>

#include "Common Sources/Localization.h"
#include "tests/core/AgentFixture.h"
#include "tests/support/Program.h"

namespace vardell::test {
namespace {

using Words = QStringList;
using namespace Qt::StringLiterals;

const QString kToy = u"toy"_s;

// A child that only waits to be ended.
Program StartVictim() {
  return Program({"/bin/sleep", "1000"}, {});
}

class EnforcementTickTest : public AgentFixture {};

struct MinuteRow {
  const char* behaviour;
  int credit;
  int minutes;
  const char* frames;
  Words alerts;
  bool watchedAfterwards;
};

class MinutesTest : public AgentFixture, public testing::WithParamInterface<MinuteRow> {};

TEST_P(MinutesTest, GoAsToldByTheTable) {
  const MinuteRow& row = GetParam();
  Program victim = StartVictim();
  Watch(kToy, row.credit, victim.pid());
  Tick(60 * (row.minutes - 1) + 1);
  EXPECT_EQ(QLatin1String(row.frames), Frames());
  EXPECT_EQ(row.alerts, ShownAlerts());
  EXPECT_EQ(row.watchedAfterwards, IsWatched(kToy));
  EXPECT_EQ(row.watchedAfterwards ? -1000 : -SIGKILL,
            victim.Wait(row.watchedAfterwards ? 0ms : kPatience));
}

const MinuteRow kMinutes[] = {
    {"a minute is paid and refreshed when it begins", 30, 1, "6:29 1", {}, true},
    {"five minutes left warn once and go on with 4", 5, 2, "6:4 1 6:3 1", {"toy 2"}, true},
    {"the last minute warns", 1, 1, "6:0 1", {"toy 0"}, true},
    {"the last minute is followed by the end, which reports -1", 1, 2, "6:0 1 6:-1 1", {}, false},
    {"a credit of nothing ends at once", 0, 1, "6:-1 1", {}, false},
    {"two minutes warn at the second", 2, 3, "6:1 1 6:0 1 6:-1 1", {}, false},
};

INSTANTIATE_TEST_SUITE_P(Credit, MinutesTest, testing::ValuesIn(kMinutes));

TEST_F(EnforcementTickTest, AnIdentifierThatTheServerNoLongerWatchesIsLeftAlone) {
  Program victim = StartVictim();
  Watch(kToy, 30, victim.pid());
  server.Answer(kToy, {{u"Enabled"_s, false}});
  Tick();
  EXPECT_FALSE(IsWatched(kToy));
  EXPECT_TRUE(victim.IsRunning());
  EXPECT_EQ(std::vector{victim.pid()}, removedLines);
}

TEST_F(EnforcementTickTest, AProcessThatHasGoneIsDroppedWithoutAReport) {
  Watch(kToy, 30, 4711);
  Tick(2);
  (void)Frames();
  processes.SetAlive(4711, false);
  Tick(61);
  EXPECT_FALSE(IsWatched(kToy));
  EXPECT_EQ(QString(), Frames());
  EXPECT_EQ(std::vector{4711}, removedLines);
}

TEST_F(EnforcementTickTest, TheLoginWindowNeverCountsAsDead) {
  Watch(QLatin1String(kLoginWindowIdentifier), 30, 4711);
  processes.SetAlive(4711, false);
  Tick(2);
  EXPECT_TRUE(IsWatched(QLatin1String(kLoginWindowIdentifier)));
}

// --- spent, and no last minute is granted

TEST_F(EnforcementTickTest, ASpentEntryIsHeldUntilItsWarningGoes) {
  Program victim = StartVictim();
  Watch(kToy, kSpentCredit, victim.pid());
  whileItStands = [&] {
    Tick(58);
    EXPECT_EQ(QString(), Frames());
    EXPECT_TRUE(victim.IsRunning());
    agent.statusRefreshCountdown = 1;
    Tick();
    EXPECT_EQ(Words(), lines);
  };
  Tick();
  EXPECT_EQ(Words{"toy 1"}, ShownAlerts());
  EXPECT_EQ(-SIGKILL, victim.Wait());
  EXPECT_EQ(u"6:0 1"_s, Frames());
  EXPECT_FALSE(IsWatched(kToy));
}

TEST_F(EnforcementTickTest, ASpentEntryEndsAtItsNextMinuteUnderItsWarningAndOnlyOnce) {
  Program victim = StartVictim();
  Watch(kToy, kSpentCredit, victim.pid());
  whileItStands = [&] {
    Tick(60);
    EXPECT_EQ(-SIGKILL, victim.Wait());
    EXPECT_EQ(u"6:0 1"_s, Frames());
    EXPECT_FALSE(IsWatched(kToy));
  };
  Tick();
  EXPECT_EQ(Words{"toy 1"}, ShownAlerts());
  EXPECT_EQ(QString(), Frames());
}

TEST_F(EnforcementTickTest, ASpentEntryThatQuitsUnderItsWarningReportsNothing) {
  Watch(kToy, kSpentCredit, 4711);
  whileItStands = [&] {
    processes.SetAlive(4711, false);
    Tick();
    EXPECT_FALSE(IsWatched(kToy));
  };
  Tick();
  EXPECT_EQ(Words{"toy 1"}, ShownAlerts());
  EXPECT_EQ(QString(), Frames());
}

// --- alerts and the table

TEST_F(EnforcementTickTest, ALaterWarningTakesThePlaceOfAnUnseenOne) {
  Watch(kToy, 5, getpid());
  Minutes(4);
  Tick();
  EXPECT_EQ(Words{"toy 0"}, ShownAlerts());
}

TEST_F(EnforcementTickTest, UnseenWarningsOfAnEntryThatHasGoneAreDropped) {
  Watch(kToy, 1, 4711);
  Tick();
  processes.SetAlive(4711, false);
  Tick();
  EXPECT_EQ(Words(), ShownAlerts());
}

TEST_F(EnforcementTickTest, AStandingWarningDoesNotStopTheCount) {
  Watch(kToy, 5, getpid());
  whileItStands = [this] { Minutes(2); };
  Tick();
  EXPECT_EQ(Words{"toy 2"}, ShownAlerts());
  EXPECT_EQ(u"6:4 1 6:3 1 6:2 1"_s, Frames());
}

TEST_F(EnforcementTickTest, AnEntryThatSlidIntoAFreePlaceIsVisitedASecondLater) {
  Watch(kToy, 30, 4711);
  const auto next = Watch(u"next"_s, 30, getpid());
  processes.SetAlive(4711, false);
  Tick();
  EXPECT_EQ(0u, next->ticks);
  Tick();
  EXPECT_EQ(1u, next->ticks);
}

// --- the session

TEST_F(EnforcementTickTest, AFullScreenApplicationInFrontIsEndedBeforeTheSession) {
  Program game = StartVictim();
  Program leader = StartVictim();
  front.frontPid = game.pid();
  front.captured = true;
  // Known only since the entry was made.
  session.leaderPid = leader.pid();
  Watch(QLatin1String(kLoginWindowIdentifier), 0, 0);
  Tick();
  EXPECT_EQ(-SIGKILL, game.Wait());
  EXPECT_EQ(-SIGKILL, leader.Wait());
}

TEST_F(EnforcementTickTest, TheSessionLineHasKeyMinusOneAndHundredthsAreSecondsLeft) {
  Watch(QLatin1String(kLoginWindowIdentifier), 12, 4711)->ticks = 15;
  Watch(kToy, 0, getpid())->ticks = 59;
  Watch(u"spent"_s, kSpentCredit, getpid())->ticks = 5;
  Watch(QLatin1String(kGlobalSettingsIdentifier), 3, 0)->ticks = 5;
  RefreshStatusCredits(agent);
  EXPECT_EQ((Words{"-1 COM.APPLE.LOGINWINDOW 12.45", QString::number(getpid()) + " TOY 0.01"}),
            lines);
}

TEST_F(EnforcementTickTest, TheGlobalSettingsLiveOnAndAreNeverReported) {
  Watch(QLatin1String(kGlobalSettingsIdentifier), 0, 0);
  Minutes(3);
  EXPECT_TRUE(IsWatched(QLatin1String(kGlobalSettingsIdentifier)));
  EXPECT_EQ(QString(), Frames());
}

// --- the disk quota

class HomeFolderTest : public EnforcementTickTest {
 protected:
  HomeFolderTest() {
    qputenv("VARDELL_TEST_ROOT", root_.path().toUtf8());
    home_ = root_.path() + QString::fromLocal8Bit(getpwuid(getuid())->pw_dir);
    QDir().mkpath(home_);
    agent.ui.setDiskLine = [this](bool, std::uint64_t, std::uint64_t usage) { usage_ = usage; };
    session.leaderPid = leader_.pid();
    entry_ = Watch(QLatin1String(kGlobalSettingsIdentifier), 0, 0);
    entry_->limits.diskQuotaEnabled = 1;
    entry_->limits.diskQuotaValue = 1;
  }
  ~HomeFolderTest() override { qunsetenv("VARDELL_TEST_ROOT"); }

  void Hold(qint64 bytes) {
    QFile file(home_ + u"/film"_s);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.resize(bytes));
    holds_ = static_cast<std::uint64_t>(bytes);
  }
  // To the next check, its figure, and what comes of it.
  Words CheckOnce() {
    usage_.reset();
    Tick(entry_->ticks == 0 ? 1 : 60);
    EXPECT_TRUE(WaitUntil([this] { return usage_.has_value(); }));
    EXPECT_EQ(holds_, usage_);
    return ShownAlerts();
  }

  const Words kWarning{
      FormatLocalized(Localized("Disk Space low format"), {u"2.00 MB"_s, u"1.00 MB"_s})};
  QTemporaryDir root_;
  QString home_;
  Program leader_ = StartVictim();
  WatchedAppPtr entry_;
  std::uint64_t holds_ = 0;
  std::optional<std::uint64_t> usage_;
};

TEST_F(HomeFolderTest, IsWarnedOfForgivenWarnedOfAnewAndEndsTheSession) {
  Hold(1 << 20);
  EXPECT_EQ(Words(), CheckOnce());
  Hold(2 << 20);
  EXPECT_EQ(kWarning, CheckOnce());
  EXPECT_EQ(-1, agent.diskQuota.warningCounter);
  EXPECT_EQ(Words(), CheckOnce());
  Hold(1 << 10);
  EXPECT_EQ(Words(), CheckOnce());
  Hold(2 << 20);
  EXPECT_EQ(kWarning, CheckOnce());
  EXPECT_EQ(Words(), CheckOnce());
  EXPECT_TRUE(leader_.IsRunning());
  EXPECT_EQ(Words(), CheckOnce());
  EXPECT_EQ(-SIGKILL, leader_.Wait());
  EXPECT_EQ(0, entry_->pid);
  Tick(60);
  EXPECT_TRUE(IsWatched(QLatin1String(kGlobalSettingsIdentifier)));
}

TEST_F(HomeFolderTest, AWindowThatNobodyClicksAwayDoesNotKeepTheWarningBack) {
  Hold(2 << 20);
  Watch(kToy, 5, getpid());
  whileItStands = [this] {
    EXPECT_TRUE(WaitUntil([this] { return agent.diskQuota.warningCounter == -1; }));
  };
  EXPECT_EQ(Words{"toy 2"} + kWarning, CheckOnce());
}

TEST_F(HomeFolderTest, IsNotCheckedSoonerBecauseTheServerCameAndWent) {
  EXPECT_EQ(Words(), CheckOnce());
  Tick(20);
  OfferRunningApplications(agent);
  usage_.reset();
  Tick(30);
  EXPECT_FALSE(WaitUntil([this] { return usage_.has_value(); }, 100ms));
}

// --- a Server that was lost

TEST_F(EnforcementTickTest, EverythingIsOfferedAgainOnceALostServerIsBack) {
  processes.Run(Toy(), getpid());
  server.AnswerCredit(kToy, 30);
  agent.link.replyMissed = true;
  Tick(5);
  EXPECT_FALSE(IsWatched(kToy));
  Tick();
  EXPECT_TRUE(IsWatched(kToy));
  EXPECT_TRUE(IsWatched(QLatin1String(kGlobalSettingsIdentifier)));
  EXPECT_FALSE(agent.link.replyMissed);
}

TEST_F(EnforcementTickTest, AMinuteIsClaimedAgainWhenItsReportGetsLostWithTheConnection) {
  Watch(kToy, 30, 42);
  Tick();
  (void)Frames();
  shutdown(agent.link.shared->Descriptor(), SHUT_RDWR);
  Minutes(1);
  EXPECT_EQ(Frames(), u"1 6:28 1"_s);
}

struct Outage {
  const char* behaviour;
  int usedFor;  // seconds of it
  int credit;   // that the Server has when it is back
  int claim;
};

class OutageTest : public EnforcementTickTest, public testing::WithParamInterface<Outage> {};

TEST_P(OutageTest, IsPaidForBeforeApplicationsAreOfferedAgain) {
  SCOPED_TRACE(GetParam().behaviour);
  processes.Run(Toy(), 42);
  Watch(kToy, 30, 42);
  Tick();
  const auto there = agent.link.pinnedServer;
  agent.link.pinnedServer = [] { return std::optional(u"127.0.0.1:1"_s); };
  DropServerConnection(agent.link);
  Tick(60);
  ASSERT_FALSE(IsWatched(kToy));
  Tick(GetParam().usedFor);
  processes.SetAlive(42, false);
  Tick(130 - GetParam().usedFor);
  (void)Frames();

  agent.link.pinnedServer = there;
  server.AnswerCredit(kToy, GetParam().credit);
  Tick(10);
  EXPECT_TRUE(Frames().startsWith(u"1 6:%1 3"_s.arg(GetParam().claim)));
  EXPECT_TRUE(agent.lostApps.empty());
}

const Outage kOutages[] = {{"every minute that had begun", 130, 29, 26},
                           {"up to the application's end", 70, 29, 27},
                           {"no more than there is, and no end", 130, 2, 0}};

INSTANTIATE_TEST_SUITE_P(Uses, OutageTest, testing::ValuesIn(kOutages));

TEST_F(EnforcementTickTest, OffersThatNobodyAnswersGrowRarer) {
  agent.link.pinnedServer = [] { return std::optional(u"127.0.0.1:1"_s); };
  agent.link.replyMissed = true;
  testing::internal::CaptureStdout();
  Tick(80);
  // After 5 s, and then after pauses of 10, 20 and 40 s.
  EXPECT_EQ(4, QString::fromStdString(testing::internal::GetCapturedStdout())
                   .count(u"Resolving streams failed"_s));
}

}  // namespace
}  // namespace vardell::test
