#include "link/Requests.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common Sources/PropertyList.h"
#include "link/MessageEncoding.h"
#include "link/RequestExchange.h"
#include "tests/link/LinkFixture.h"

namespace vardell {
namespace {

using namespace test;

const QString kUser = QStringLiteral("bob");
const QString kApp = QStringLiteral("org.example.app");
const QByteArray kNames = Hex("03000000") + "bob" + Hex("0f000000") + "org.example.app";

QByteArray Xml(const QVariant& value) {
  return WritePropertyListXml(value).value();
}

const QVariantMap kLimits = {{QStringLiteral("Credit"), 7}, {QStringLiteral("Enabled"), true}};
const QVariantMap kLimitsRead = {{QStringLiteral("Credit"), qlonglong(7)},
                                 {QStringLiteral("Enabled"), true}};

class RequestsTest : public LinkTest {
 protected:
  QVariant Fetch() {
    QVariant limits;
    observed = Observe([&] { limits = CopyLimitsDictionary(link, kUser, kApp); });
    return limits;
  }
  Observed observed;
};

TEST_F(RequestsTest, ALaunchAndAMinuteOnTheWire) {
  const ScriptedPeer& peer = Serve({AnswerWith(Xml(kLimits))});
  LimitsRecord record;
  record.credit = 6;
  record.enabled = 1;
  (void)Observe([&] {
    EXPECT_EQ(SendAppStarted(link, kUser, kApp), 0);
    EXPECT_EQ(CopyLimitsDictionary(link, kUser, kApp), QVariant(kLimitsRead));
    EXPECT_EQ(SendRequest(link, RequestKind::CreditReport,
                          AppendLimitsRecordToData(kUser, kApp, record), 3, false, nullptr),
              0);
    EXPECT_EQ(CopyLimitsDictionary(link, kUser, kApp), QVariant(kLimitsRead));
    SendQuery(link, kUser);
  });
  const QByteArray packed = Hex(
      "00000000 00000000 06000000 00 00 00 00000000 00000000 00000000 00000000 01 00 00 00000000"
      "00 00000000");
  const std::vector<QByteArray> expected = {
      Hex("000000230300000000") + kNames,          Hex("000000230100000000") + kNames,
      Hex("0000004e0600000000") + kNames + packed, Hex("000000230100000000") + kNames,
      Hex("000000100400000000") + kNames.first(7),
  };
  EXPECT_EQ(peer.Frames(), expected);
  EXPECT_EQ(peer.ConnectionCount(), 1u);
}

TEST_F(RequestsTest, WhatAFetchMakesOfAReply) {
  const struct {
    const char* behaviour;
    QByteArray body;
    QVariant limits;
    bool missed;
  } rows[] = {
      {"a dictionary", Xml(kLimits), kLimitsRead, false},
      {"an empty dictionary is an answer", Xml(QVariantMap()), QVariantMap(), false},
      {"a string is handed on and answers nothing", Xml(QStringLiteral("no")), QStringLiteral("no"),
       true},
      {"no property list", "garbage", QVariant(), true},
      {"half a property list", Xml(kLimits).chopped(9), QVariant(), true},
      {"a length of 0", "", QVariantMap(), true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.behaviour);
    const ScriptedPeer& peer = Serve({AnswerWith(row.body)});
    link.replyMissed = link.offerAgain = false;
    const QVariant limits = Fetch();
    EXPECT_EQ(limits, row.limits);
    EXPECT_EQ(limits.isValid(), row.limits.isValid());
    EXPECT_EQ(link.replyMissed, row.missed);
    EXPECT_EQ(observed.err, "");
    EXPECT_EQ(peer.Frames().size(), 1u);
  }
}

TEST_F(RequestsTest, ASilentServerCostsOneTimeOutAndIsAskedOnNoFurther) {
  const ScriptedPeer& peer = Serve({StaySilent, AnswerWith(Xml(kLimits))});
  EXPECT_EQ(Fetch(), QVariant(QVariantMap()));
  EXPECT_GE(observed.took, 2 * link.second);
  EXPECT_EQ(observed.err, "");
  EXPECT_EQ(peer.Frames().size(), 1u);
  EXPECT_TRUE(link.replyMissed);
  EXPECT_FALSE(link.offerAgain);

  // The next connection offers everything again.
  EXPECT_EQ(Fetch(), QVariant(kLimitsRead));
  EXPECT_FALSE(link.replyMissed);
  EXPECT_TRUE(link.offerAgain);
}

TEST_F(RequestsTest, AFetchThatFailsIsTriedOnceMore) {
  Serve({[](PeerConnection&) {}, AnswerWith(Xml(kLimits))});
  Connect();
  WaitForPeer();
  EXPECT_EQ(Fetch(), QVariant(kLimitsRead));
  EXPECT_EQ(observed.err, std::string(kLostText) + kReconnectText);
  EXPECT_FALSE(link.replyMissed || link.offerAgain);
}

TEST_F(RequestsTest, WithoutAServerBothAttemptsSaySo) {
  EXPECT_EQ(Fetch(), QVariant(QVariantMap()));
  EXPECT_EQ(observed.err, std::string(kReconnectText) + kReconnectText);
  EXPECT_TRUE(link.replyMissed);
  EXPECT_EQ(SendAppStarted(link, kUser, kApp), -1);
}

TEST_F(RequestsTest, AQueryIsAnsweredByADictionaryOnly) {
  std::optional<QVariantMap> dictionary;
  const auto query = [&] {
    observed = Observe([&] { dictionary = CopyQueryDictionary(link, kUser, kApp); });
  };
  const ScriptedPeer& peer =
      Serve({AnswerWith(Xml(QStringLiteral("no"))), AnswerWith(Xml(kLimits))});
  query();
  EXPECT_EQ(dictionary, kLimitsRead);
  EXPECT_EQ(observed.err, kReconnectText);
  EXPECT_EQ(peer.Frames().front(), Hex("000000230500000000") + kNames);

  Serve({AnswerWith("garbage")});
  query();
  EXPECT_EQ(dictionary, std::nullopt);
  EXPECT_EQ(observed.err, std::string(kReconnectText) + kReconnectText);
  EXPECT_FALSE(link.shared);
}

// --- Ending a process.

class KillTest : public RequestsTest {
 protected:
  KillTest() : shared(Serve({AnswerWith(Xml(kLimits))})) { link.killPort = listener.Port(); }
  void Kill(std::int32_t pid) {
    observed = Observe([&] { KillProcess(link, pid); });
  }

  const ScriptedPeer& shared;
  ScriptedPeer listener{{StaySilent}};
};

pid_t StartChild() {
  const pid_t child = fork();
  if (child == 0)
    for (;;) pause();
  return child;
}

pid_t VanishedPid() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  return child;
}

// Runs `work` in a process that may not signal others' processes, and waits for it.
template <typename Work>
int RunUnprivileged(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() == 0 && setresuid(kNobody, kNobody, kNobody) != 0) _exit(3);
    if (setsid() < 0) _exit(4);
    work();
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

TEST_F(KillTest, TheAgentEndsAProcessItselfWhereItCan) {
  const pid_t child = StartChild();
  Kill(child);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  EXPECT_EQ(observed.out, "Killed pid " + std::to_string(child) + " ourself!\n");
  EXPECT_EQ(listener.ConnectionCount(), 0u);
  EXPECT_EQ(shared.ConnectionCount(), 0u);
}

TEST_F(KillTest, WhatItCannotEndGoesToTheListenerOfThisMachine) {
  Connect();
  const pid_t pid = VanishedPid();
  Kill(pid);
  EXPECT_EQ(observed.out + observed.err, "");
  QByteArray digits;
  AppendStringToData(digits, QString::number(pid));
  std::uint32_t reservedWord = 0;
  EXPECT_EQ(listener.WaitForFrames(1),
            std::vector{BuildRequestFrame(RequestKind::KillProcess, digits, reservedWord)});
  EXPECT_TRUE(shared.Frames().empty());

  Kill(pid);
  EXPECT_EQ(listener.WaitForFrames(2).size(), 2u);
  EXPECT_EQ(listener.ConnectionCount(), 2u);
}

TEST_F(KillTest, AProcessThatMayNotBeSignalledGoesToTheListenerToo) {
  observed = Observe([&] { EXPECT_EQ(RunUnprivileged([&] { KillProcess(link, 1); }), 0); });
  EXPECT_EQ(listener.WaitForFrames(1), std::vector{Hex("0000000e 07 00000000 01000000 31")});
  EXPECT_EQ(observed.out.find("ourself"), std::string::npos);
}

TEST_F(KillTest, NothingHappensForAPidOfNothing) {
  for (const std::int32_t pid : {0, -1}) {
    observed = Observe([&] { EXPECT_EQ(RunUnprivileged([&] { KillProcess(link, pid); }), 0); });
    EXPECT_EQ(observed.out + observed.err, "") << pid;
  }
}

TEST_F(KillTest, WithoutAListenerOrAServerItSaysSoAtOnce) {
  const pid_t pid = VanishedPid();
  const std::string text =
      "Could not make vardell server kill process " + std::to_string(pid) + ".\n";
  Connect();
  link.killPort = ClosedPort();
  link.second = 10s;
  Kill(pid);
  EXPECT_EQ(observed.out, text);
  EXPECT_EQ(observed.err, kLostText);
  EXPECT_LT(observed.took, 10 * link.second);
  EXPECT_FALSE(link.shared);

  discovery.daemonRuns = false;
  link.rememberedService.reset();
  link.killPort = listener.Port();
  Kill(pid);
  EXPECT_EQ(observed.out, text);
  EXPECT_EQ(listener.ConnectionCount(), 0u);
}

}  // namespace
}  // namespace vardell
