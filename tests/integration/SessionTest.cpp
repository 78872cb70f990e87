// The real agent in a login session that is switched away and back. login1 is a stand-in on the
// desktop's own system bus.
#include "tests/integration/ScreenFixture.h"

namespace vardell::test {
namespace {

const QString kLogin1 = QStringLiteral("org.freedesktop.login1");
const QString kManagerPath = QStringLiteral("/org/freedesktop/login1");
const QString kSessionPath = QStringLiteral("/org/freedesktop/login1/session/s1");

class SessionTest : public ScreenFixture {
 protected:
  void TearDown() override {
    ScreenFixture::TearDown();
    if (HasFailure()) fprintf(stderr, "--- login1\n%s\n", qPrintable(login1.Output()));
    login1.End(SIGKILL);
    EXPECT_TRUE(WaitUntil([] { return !HasLogin1(); }));
  }

  static bool HasLogin1() {
    QDBusMessage ask = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
    ask << kLogin1;
    return QDBusConnection::systemBus().call(ask).arguments().value(0).toBool();
  }
  static void Mock(const QString& path, const QString& method, const QVariantList& arguments) {
    QDBusMessage call = QDBusMessage::createMethodCall(
        kLogin1, path, QStringLiteral("org.freedesktop.DBus.Mock"), method);
    call.setArguments(arguments);
    const QDBusMessage answer = QDBusConnection::systemBus().call(call);
    ASSERT_EQ(QDBusMessage::ReplyMessage, answer.type()) << qPrintable(answer.errorMessage());
  }

  // login1 that takes every process for one of the session "s1".
  void StartLogin1(bool active) {
    login1 = Program({"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"},
                     {.output = world.Path("login1.log")});
    ASSERT_TRUE(WaitUntil(HasLogin1));
    Mock(
        kManagerPath, QStringLiteral("AddSession"),
        {QStringLiteral("s1"), QStringLiteral("seat0"), getuid(), QStringLiteral("child"), active});
    Mock(
        kManagerPath, QStringLiteral("AddMethod"),
        {QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("GetSessionByPID"),
         QStringLiteral("u"), QStringLiteral("o"), QStringLiteral("ret = '%1'").arg(kSessionPath)});
  }
  static void Switch(bool active) {
    Mock(kSessionPath, QStringLiteral("UpdateProperties"),
         {QStringLiteral("org.freedesktop.login1.Session"),
          QVariantMap{{QStringLiteral("Active"), active}}});
  }
  bool Claims(const std::vector<int>& claims, int seconds = 0) {
    return world.WaitForClaims("witness", claims, kPatience + world.Seconds(seconds));
  }
  bool ClaimsMoreThan(std::size_t count, int seconds) {
    return WaitUntil([&] { return world.Claims("witness").size() > count; },
                     world.Seconds(seconds));
  }

  Program login1;
};

TEST_F(SessionTest, SwitchedAwayCountsNothingAndGoesOnWhereItStood) {
  StartLogin1(true);
  ASSERT_TRUE(world.StartAll());
  world.StartWitness();
  ASSERT_TRUE(Claims({99}));
  const auto paid = Clock::now();

  Switch(false);
  const auto away = Clock::now();
  EXPECT_FALSE(ClaimsMoreThan(1, 130));
  Switch(true);
  const auto back = Clock::now();
  ASSERT_TRUE(Claims({99, 98}, 60));
  // The minute that was paid is used up by seconds in front alone; ten are for a busy machine,
  // which may show the first claim late.
  EXPECT_GE((Clock::now() - back) + (away - paid), world.Seconds(50));
  EXPECT_EQ(98, world.Credit("witness"));
  EXPECT_TRUE(world.witness.IsRunning());
}

TEST_F(SessionTest, ThatIsNotInFrontAtTheStartCountsOnceItIs) {
  StartLogin1(false);
  ASSERT_TRUE(world.StartAll());
  world.StartWitness();
  ExpectNothingIsCounted();
  Switch(true);
  EXPECT_TRUE(Claims({99}));
}

TEST_F(SessionTest, WhatStandsWhenItIsSwitchedAwayGoesOnStanding) {
  const QString warning = u"5 minutes left. Please finish"_s;
  StartLogin1(true);
  ASSERT_TRUE(StartAll());
  world.StartWitness();
  Program toy = LaunchWithCredit("toy", 5);
  ASSERT_TRUE(ComesUp(warning) && WitnessPays(1));
  Switch(false);
  ExpectNothingIsCounted();
  EXPECT_TRUE(IsUp(warning));
  Switch(true);
  EXPECT_TRUE(WitnessPays(Paid() + 1));
  Click();
  EXPECT_TRUE(Goes(warning));

  LockByMenu();
  Switch(false);
  Switch(true);
  ExpectNothingIsCounted();
  Click();
  EXPECT_TRUE(Goes(kLocked));
  EXPECT_TRUE(WitnessPays(Paid() + 1));
}

}  // namespace
}  // namespace vardell::test
