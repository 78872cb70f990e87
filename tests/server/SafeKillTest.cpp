#include "server/SafeKill.h"

#include <gtest/gtest.h>
#include <linux/sched.h>
#include <sys/syscall.h>

#include <cstring>
#include <ostream>

#include "tests/support/OtherUsers.h"

namespace vardell::server {

void PrintTo(KillResult result, std::ostream* out) {
  *out << ToString(result).toStdString();
}

namespace {

using namespace test;

bool Nobody(pid_t, uid_t) {
  return false;
}
bool Everybody(pid_t, uid_t) {
  return true;
}

class SafeKill : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: processes of several users are killed";
  }
};

// A new process with that very pid, or 0.
pid_t ForkWithPid(pid_t pid, uid_t uid) {
  clone_args arguments{};
  arguments.exit_signal = SIGCHLD;
  arguments.set_tid = reinterpret_cast<std::uint64_t>(&pid);
  arguments.set_tid_size = 1;
  const long result = syscall(SYS_clone3, &arguments, sizeof(arguments));
  if (result == 0) {
    // No libc between clone3 and here: it does not know of this process.
    syscall(SYS_setresuid, uid, uid, uid);
    for (;;) syscall(SYS_pause);
  }
  return result == pid ? pid : 0;
}

// --- What is killed, and what is not. The facts are the row's; the process is real.

ProcessFacts Of(std::array<uid_t, 4> uids, const char* program = "game", bool kernel = false) {
  return {uids, QString::fromLatin1(program), 0, kernel};
}
ProcessFacts Of(uid_t uid, const char* program = "game") {
  return Of({uid, uid, uid, uid}, program);
}

TEST(SafeKillRules, EndOnlyWhatIsTheRequestersOrLeadsTheirSession) {
  constexpr uid_t kDaemon = 101;
  const struct {
    const char* what;
    ProcessFacts facts;
    uid_t requester;
    bool leadsTheirSession;
    KillResult expected;
  } kRows[] = {
      {"the requester's own", Of(kAnna), kAnna, false, KillResult::Killed},
      {"another user's", Of(kBert), kAnna, false, KillResult::NotTheirs},
      {"root's", Of(0u), kAnna, false, KillResult::NotTheirs},
      {"root's, leads the requester's session", Of(0u), kAnna, true, KillResult::Killed},
      {"started by the requester, runs as root", Of({kAnna, 0, 0, 0}), kAnna, false,
       KillResult::NotTheirs},
      {"the same, and leads the requester's session", Of({kAnna, 0, 0, 0}), kAnna, true,
       KillResult::NotTheirs},
      {"only its saved uid is another's", Of({kAnna, kAnna, kBert, kAnna}), kAnna, false,
       KillResult::NotTheirs},
      {"only its file system uid is another's", Of({kAnna, kAnna, kAnna, kBert}), kAnna, false,
       KillResult::NotTheirs},
      {"a system account's, said to lead", Of(kDaemon), kAnna, true, KillResult::Protected},
      {"a kernel thread", Of({0, 0, 0, 0}, "kworker", true), kAnna, true, KillResult::Protected},
      {"the service manager, said to lead", Of(0u, "systemd"), kAnna, true, KillResult::Protected},
      {"the system bus, said to lead", Of(0u, "dbus-daemon"), kAnna, true, KillResult::Protected},
      {"the requester's own service manager", Of(kAnna, "systemd"), kAnna, false,
       KillResult::Protected},
      {"root asks for its own", Of(0u), 0, false, KillResult::Protected},
      {"nobody asks for its own", Of(kNobodyUid), kNobodyUid, false, KillResult::Protected},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    const Sleeper process;
    KillRules rules;
    rules.isSessionLeader = row.leadsTheirSession ? Everybody : Nobody;
    rules.readFacts = [&](pid_t) { return std::optional(row.facts); };
    EXPECT_EQ(KillOnRequest(process.Pid(), row.requester, rules), row.expected);
    EXPECT_TRUE(row.expected == KillResult::Killed ? process.DiesOfKill() : process.IsAlive());
  }
}

TEST(SafeKillRules, NeverTouchTheFirstProcessItselfOrNonsense) {
  const KillRules rules{Everybody, ReadProcessFacts};
  for (const pid_t pid : {1, 0, -1, -4242, static_cast<int>(getpid()), static_cast<int>(getppid()),
                          static_cast<int>(getsid(0))}) {
    EXPECT_EQ(KillOnRequest(pid, kAnna, rules), KillResult::Protected) << pid;
  }
}

// --- Gone, or somebody else by now.

TEST_F(SafeKill, WhatHasEndedIsGone) {
  const KillRules rules{Everybody, ReadProcessFacts};
  Sleeper reaped(Sleeper::OfUser(kAnna));
  const pid_t pid = reaped.Pid();
  reaped.End();
  EXPECT_EQ(KillOnRequest(pid, kAnna, rules), KillResult::Gone);

  const Sleeper zombie(Sleeper::OfUser(kAnna));
  kill(zombie.Pid(), SIGKILL);
  ASSERT_TRUE(zombie.DiesOfKill());
  EXPECT_EQ(KillOnRequest(zombie.Pid(), kAnna, rules), KillResult::Gone);
}

TEST_F(SafeKill, APidThatIsReusedMeanwhileIsNotKilled) {
  pid_t newcomer = 0;
  // Ends `old` and gives its pid to a new process of `uid`.
  const auto replace = [&newcomer](Sleeper* old, uid_t uid) {
    const pid_t pid = old->Pid();
    old->End();
    newcomer = ForkWithPid(pid, uid);
    ASSERT_EQ(newcomer, pid) << "clone3: " << strerror(errno);
  };
  const auto expectItLives = [&newcomer] {
    siginfo_t info{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(newcomer), &info, WEXITED | WNOHANG | WNOWAIT), 0);
    EXPECT_EQ(info.si_pid, 0) << "it was killed";
    kill(newcomer, SIGKILL);
    waitpid(newcomer, nullptr, 0);
  };
  for (const uid_t newOwner : {kAnna, kBert}) {
    SCOPED_TRACE("before the facts are read");
    Sleeper process(Sleeper::OfUser(kBert));
    KillRules rules{Nobody, {}};
    rules.readFacts = [&](pid_t pid) {
      replace(&process, newOwner);
      return ReadProcessFacts(pid);
    };
    EXPECT_EQ(KillOnRequest(process.Pid(), kAnna, rules), KillResult::Gone) << newOwner;
    expectItLives();
  }
  SCOPED_TRACE("while the session is asked for");
  Sleeper process;
  KillRules rules;
  rules.isSessionLeader = [&](pid_t, uid_t) {
    replace(&process, kBert);
    return true;
  };
  EXPECT_EQ(KillOnRequest(process.Pid(), kAnna, rules), KillResult::Gone);
  expectItLives();
}

TEST_F(SafeKill, TheKernelsRefusalIsToldApartFromGone) {
  const Sleeper annas(Sleeper::OfUser(kAnna));
  const KillRules rules{Nobody, ReadProcessFacts};
  AsUser(kBert, [&] { EXPECT_EQ(KillOnRequest(annas.Pid(), kAnna, rules), KillResult::Denied); });
  EXPECT_TRUE(annas.IsAlive());
}

}  // namespace
}  // namespace vardell::server
