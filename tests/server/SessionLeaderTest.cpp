#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>

#include "server/SafeKill.h"
#include "tests/support/Login1.h"
#include "tests/support/OtherUsers.h"

namespace vardell::server {
namespace {

using namespace test;

// One test: the steps below, from no bus at all to a silent login1, follow each other.
TEST(SessionLeader, Login1DecidesWhereThereIsOneAndTheProcessTableElsewhere) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: a session of another user is made";
  Login1 login1;
  // By the process table a leader of Anna's; by login1 of nobody's.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const Sleeper byTable([&] {
    setsid();
    if (fork() == 0) {
      (void)!setresuid(kAnna, kAnna, kAnna);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const pid_t self = getpid();
      (void)!write(ready[1], &self, sizeof(self));
      for (;;) pause();
    }
  });
  pid_t member = 0;
  ASSERT_EQ(read(ready[0], &member, sizeof(member)), static_cast<ssize_t>(sizeof(member)));
  const Sleeper byLogin1;  // the other way round

  EXPECT_TRUE(IsSessionLeaderOf(byTable.Pid(), kAnna)) << "no bus";
  EXPECT_FALSE(IsSessionLeaderOf(byTable.Pid(), kBert)) << "not a member";
  EXPECT_FALSE(IsSessionLeaderOf(member, kAnna)) << "a member, not the leader";
  ASSERT_NO_FATAL_FAILURE(login1.StartBus());
  EXPECT_TRUE(IsSessionLeaderOf(byTable.Pid(), kAnna)) << "no login1";
  EXPECT_FALSE(IsSessionLeaderOf(byLogin1.Pid(), kAnna)) << "no login1";

  ASSERT_NO_FATAL_FAILURE(login1.Start());
  EXPECT_FALSE(IsSessionLeaderOf(byTable.Pid(), kAnna)) << "login1 knows no session";
  ASSERT_NO_FATAL_FAILURE(login1.AddSession(u"b1"_s, kBert, byTable.Pid()));
  ASSERT_NO_FATAL_FAILURE(login1.AddSession(u"a1"_s, kAnna, getpid()));
  ASSERT_NO_FATAL_FAILURE(login1.AddSession(u"a2"_s, kAnna, byLogin1.Pid()));
  EXPECT_TRUE(IsSessionLeaderOf(byLogin1.Pid(), kAnna)) << "of her second session";
  EXPECT_FALSE(IsSessionLeaderOf(byLogin1.Pid(), kBert));
  EXPECT_FALSE(IsSessionLeaderOf(byTable.Pid(), kAnna)) << "Bert's";

  login1.program.Signal(SIGSTOP);
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(IsSessionLeaderOf(byLogin1.Pid(), kAnna)) << "no answer is no";
  EXPECT_FALSE(IsSessionLeaderOf(byTable.Pid(), kAnna)) << "no answer is no";
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
  for (const int fd : ready) close(fd);
}

}  // namespace
}  // namespace vardell::server
