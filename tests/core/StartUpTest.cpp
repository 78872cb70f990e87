#include "core/StartUp.h"

#include <unistd.h>

#include <QEventLoop>

#include "core/EventHandlers.h"
#include "tests/core/AgentFixture.h"

namespace vardell::test {
namespace {

using namespace Qt::StringLiterals;

class StartUpTest : public AgentFixture {
 protected:
  StartUpTest() {
    discovery.daemonRuns = false;
    perLook = std::chrono::milliseconds(50);
  }
  void Configure(int value) { preferences.values[u"Configuration"_s] = value; }
  void LetTheServerAppear() { preferences.values[u"Server"_s] = server.Address(); }

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
  (void)processes.Run(Toy(), getpid());
  server.AnswerCredit(u"toy"_s, 7);
  LetTheServerAppear();
  EXPECT_EQ(0u, Start().find("Preferences sync'ed.\n"));
  EXPECT_TRUE(IsWatched(u"toy"_s));
  EXPECT_TRUE(IsWatched(QLatin1String(kGlobalSettingsIdentifier)));
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
  EXPECT_EQ(QStringList{u"Cannot contact server"_s}, ShownAlerts());
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
  EXPECT_EQ(QStringList{u"Cannot contact remote server"_s}, ShownAlerts());
}

TEST_F(StartUpTest, AnOldSystemWithUnreadablePreferencesInASessionThatIsAwayIsBorne) {
  system.version = {10, 3};
  preferences.synchronizes = false;
  session.active = false;
  LetTheServerAppear();
  EXPECT_EQ(0u, Start().find("Could not sync preferences!\n"));
  EXPECT_TRUE(Runs());
  EXPECT_TRUE(agent.isSystem103);
  EXPECT_TRUE(agent.tickTimer.IsSuspended());
}

}  // namespace
}  // namespace vardell::test
