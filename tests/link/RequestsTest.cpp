#include "link/Requests.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tuple>

#include "Common Sources/PropertyList.h"
#include "link/MessageEncoding.h"
#include "link/RequestExchange.h"
#include "tests/link/LinkFixture.h"
#include "tests/support/OtherUsers.h"

namespace vardell {
namespace {

using namespace test;
using namespace Qt::StringLiterals;

const QString kUser = u"bob"_s;
const QString kApp = u"org.example.app"_s;
const QByteArray kNames = Hex("03000000") + "bob" + Hex("0f000000") + "org.example.app";
const QVariantMap kLimits = {{u"Credit"_s, qlonglong(7)}, {u"Enabled"_s, true}};

QByteArray Xml(const QVariant& value) {
  return WritePropertyListXml(value).value();
}

class RequestsTest : public LinkTest {
 protected:
  QVariant Fetch() {
    return Observe([&] { return CopyLimitsDictionary(link, kUser, kApp); });
  }
};

TEST_F(RequestsTest, GoOverOneConnection) {
  const ScriptedPeer& peer = Serve({AnswerWith(Xml(kLimits))});
  Connect();
  EXPECT_EQ(SendAppStarted(link, kUser, kApp), 0);
  EXPECT_EQ(Fetch(), QVariant(kLimits));
  SendQuery(link, kUser);
  const std::vector<QByteArray> expected = {Hex("000000230300000000") + kNames,
                                            Hex("000000230100000000") + kNames,
                                            Hex("000000100400000000") + kNames.first(7)};
  EXPECT_EQ(peer.Frames(), expected);
  EXPECT_EQ(peer.ConnectionCount(), 1u);
}

TEST_F(RequestsTest, WhatAFetchMakesOfAReply) {
  const std::tuple<const char*, QByteArray, QVariant, bool> rows[] = {
      {"a dictionary", Xml(kLimits), kLimits, false},
      {"an empty dictionary is an answer", Xml(QVariantMap()), QVariantMap(), false},
      {"a string is handed on, no answer", Xml(u"no"_s), u"no"_s, true},
      {"no property list", "garbage", QVariant(), true},
      {"half a property list", Xml(kLimits).chopped(9), QVariant(), true},
      {"a length of 0", "", QVariantMap(), true},
  };
  for (const auto& [behaviour, body, expected, missed] : rows) {
    SCOPED_TRACE(behaviour);
    const ScriptedPeer& peer = Serve({AnswerWith(body)});
    link.replyMissed = link.offerAgain = false;
    const QVariant limits = Fetch();
    EXPECT_EQ(limits, expected);
    EXPECT_EQ(limits.isValid(), expected.isValid());
    EXPECT_EQ(link.replyMissed, missed);
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
  EXPECT_EQ(Fetch(), QVariant(kLimits));
  EXPECT_FALSE(link.replyMissed);
  EXPECT_TRUE(link.offerAgain);
}

TEST_F(RequestsTest, AFetchThatFailsIsTriedOnceMore) {
  Serve({[](PeerConnection&) {}, AnswerWith(Xml(kLimits))});
  Connect();
  WaitForPeer();
  EXPECT_EQ(Fetch(), QVariant(kLimits));
  EXPECT_EQ(observed.err, std::string(kLostText) + kReconnectText);
  EXPECT_FALSE(link.replyMissed || link.offerAgain);

  discovery.daemonRuns = false;
  link.rememberedService.reset();
  DropServerConnection(link);
  EXPECT_EQ(Fetch(), QVariant(QVariantMap()));
  EXPECT_EQ(observed.err, std::string(kReconnectText) + kReconnectText);
  EXPECT_TRUE(link.replyMissed);
  EXPECT_EQ(SendAppStarted(link, kUser, kApp), -1);
}

TEST_F(RequestsTest, AQueryIsAnsweredByADictionaryOnly) {
  const auto query = [&] {
    return Observe([&] { return CopyQueryDictionary(link, kUser, kApp); });
  };
  const ScriptedPeer& peer = Serve({AnswerWith(Xml(u"no"_s)), AnswerWith(Xml(kLimits))});
  EXPECT_EQ(query(), kLimits);
  EXPECT_EQ(observed.err, kReconnectText);
  EXPECT_EQ(peer.Frames().front(), Hex("000000230500000000") + kNames);

  Serve({AnswerWith("garbage")});
  EXPECT_EQ(query(), std::nullopt);
  EXPECT_EQ(observed.err, std::string(kReconnectText) + kReconnectText);
  EXPECT_FALSE(link.shared);
}

// --- Ending a process.

class KillTest : public RequestsTest {
 protected:
  KillTest() : shared(Serve({AnswerWith(Xml(kLimits))})) { link.killPort = listener.Port(); }

  void Kill(std::int32_t pid) {
    (void)Observe([&] { return KillProcess(link, pid), 0; });
  }
  // By a process that may not signal others' processes.
  void KillUnprivileged(std::int32_t pid) {
    const int status = Observe([&] {
      const pid_t child = fork();
      if (child == 0) {
        constexpr uid_t kNobody = 65534;
        if (geteuid() == 0 && setresuid(kNobody, kNobody, kNobody) != 0) _exit(3);
        if (setsid() < 0) _exit(4);
        KillProcess(link, pid);
        _exit(0);
      }
      int exit = -1;
      waitpid(child, &exit, 0);
      return exit;
    });
    ASSERT_EQ(status, 0);
  }

  const ScriptedPeer& shared;
  ScriptedPeer listener{{StaySilent}};
};

pid_t VanishedPid() {
  Sleeper process;
  const pid_t pid = process.Pid();
  process.End();
  return pid;
}

TEST_F(KillTest, TheAgentEndsAProcessItselfWhereItCan) {
  const Sleeper process;
  Kill(process.Pid());
  EXPECT_TRUE(process.DiesOfKill());
  EXPECT_EQ(observed.out, "Killed pid " + std::to_string(process.Pid()) + " ourself!\n");
  EXPECT_EQ(listener.ConnectionCount(), 0u);
  EXPECT_EQ(shared.ConnectionCount(), 0u);
}

TEST_F(KillTest, WhatItCannotEndGoesToTheListenerOfThisMachineEachInAConnectionOfItsOwn) {
  Connect();
  const pid_t pid = VanishedPid();
  Kill(pid);
  EXPECT_EQ(observed.out + observed.err, "");
  ASSERT_EQ(listener.WaitForFrames(1).size(), 1u);
  KillUnprivileged(1);
  EXPECT_EQ(observed.out.find("ourself"), std::string::npos);
  const std::vector<QByteArray> frames = listener.WaitForFrames(2);
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].mid(4, 1) + frames[0].mid(13), "\7" + QByteArray::number(pid));
  EXPECT_EQ(frames[1], Hex("0000000e 07 00000000 01000000 31"));
  EXPECT_EQ(listener.ConnectionCount(), 2u);
  EXPECT_TRUE(shared.Frames().empty());
}

TEST_F(KillTest, NothingHappensForAPidOfNothing) {
  for (const std::int32_t pid : {0, -1}) {
    KillUnprivileged(pid);
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
