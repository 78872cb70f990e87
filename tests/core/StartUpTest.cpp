#include "core/StartUp.h"

#include <unistd.h>

#include <QEventLoop>

#include "core/EventHandlers.h"
#include "tests/core/AgentFixture.h"

namespace vardell::test {
namespace {

class StartUpTest : public AgentFixture {
 protected:
  StartUpTest() {
    discovery.daemonRuns = false;
    perLook = std::chrono::milliseconds(50);
  }
  void Configure(int value) { preferences.values[QStringLiteral("Configuration")] = value; }
  void LetTheServerAppear() { preferences.values[QStringLiteral("Server")] = server.Address(); }

  // Runs start-up; each time that it enters the event loop the next step is taken inside it.
  std::string Start(std::vector<std::function<void()>> steps = {}) {
    testing::internal::CaptureStdout();
    std::size_t entered = 0;
    QEventLoop* current = nullptr;
    const int status = RunAgent(agent, {[&] {
                                          ++loops;
                                          QEventLoop loop;
                                          current = &loop;
                                          if (entered < steps.size()) {
                                            QTimer::singleShot(0, [&] { steps[entered++](); });
                                            return loop.exec();
                                          }
                                          return 0;
                                        },
                                        [&] { current->quit(); }});
    EXPECT_EQ(0, status);
    return testing::internal::GetCapturedStdout();
  }
  bool Runs() const { return !hotKeys.registered.empty(); }

  int loops = 0;
};

TEST_F(StartUpTest, WithAServerItWatchesWhatRunsAlready) {
  ApplicationInfo toy;
  toy.isBundle = true;
  toy.identifier = QStringLiteral("toy");
  (void)processes.Run(toy, getpid());
  server.AnswerCredit(QStringLiteral("toy"), 7);
  LetTheServerAppear();
  EXPECT_EQ(0u, Start().find("Preferences sync'ed.\n"));
  EXPECT_TRUE(IsWatched(QStringLiteral("toy")));
  EXPECT_TRUE(IsWatched(QLatin1String(kGlobalSettingsIdentifier)));
  EXPECT_TRUE(Runs());
}

TEST_F(StartUpTest, UnreadablePreferencesAreSaidAndBorne) {
  preferences.synchronizes = false;
  LetTheServerAppear();
  EXPECT_EQ(0u, Start().find("Could not sync preferences!\n"));
  EXPECT_TRUE(Runs());
}

TEST_F(StartUpTest, WithoutAServerItCarriesOnAndLooksForOneLater) {
  EXPECT_NE(std::string::npos, Start().find("Cannot contact server err = -1.\n"));
  EXPECT_TRUE(Runs());
  EXPECT_EQ(1, loops);
  EXPECT_EQ(QStringList(), ShownAlerts());
  EXPECT_TRUE(agent.link.replyMissed);
}

TEST_F(StartUpTest, ConfigurationOneLocksAndInstallsNothing) {
  Configure(1);
  (void)Start();
  EXPECT_EQ(QStringList{QStringLiteral("Cannot contact server")}, ShownAlerts());
  EXPECT_FALSE(Runs());
}

TEST_F(StartUpTest, ConfigurationTwoLocksAndResumesWhenTheServerAppears) {
  Configure(2);
  whileItStands = [this] {
    LetTheServerAppear();
    EXPECT_TRUE(WaitUntil([this] { return messageDismissed; }));
  };
  (void)Start({[] {}});
  EXPECT_EQ(2, loops);
  EXPECT_TRUE(Runs());
  EXPECT_EQ(QStringList{QStringLiteral("Cannot contact remote server")}, ShownAlerts());
}

TEST_F(StartUpTest, ASessionThatIsAwayAtTheStartIsNotCounted) {
  session.active = false;
  LetTheServerAppear();
  (void)Start();
  EXPECT_TRUE(agent.tickTimer.IsSuspended());
}

TEST_F(StartUpTest, TheOldSystemIsKnownByItsMinorVersion) {
  system.version = {10, 3};
  LetTheServerAppear();
  (void)Start();
  EXPECT_TRUE(agent.isSystem103);
}

}  // namespace
}  // namespace vardell::test
