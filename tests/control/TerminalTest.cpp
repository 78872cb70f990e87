// vardellctl with a pseudo-terminal for its standard error, and a Server that takes its time.
#include <gtest/gtest.h>
#include <pty.h>

#include "tests/control/RunVardellctl.h"
#include "tests/support/Program.h"

namespace vardell::test {
namespace {

// Pages of the ledger, each after a pause; the last is empty.
std::vector<ScriptedPeer::Script> SlowPages(int count, std::chrono::milliseconds pause) {
  std::vector<ScriptedPeer::Script> scripts;
  for (int page = 1; page <= count; ++page) {
    scripts.push_back([=](PeerConnection& peer) {
      (void)ScriptedHttpPeer::ReadRequest(peer);
      peer.Pause(pause);
      const QByteArray row = page < count ? R"({"id":)" + QByteArray::number(page) + "}" : "";
      peer.Send(Answer(200, "{\"rows\":[" + row + "]}"));
    });
  }
  return scripts;
}

// What the terminal was sent. Standard output goes nowhere.
QByteArray OnTerminal(const QString& control, const char* kind, const char* words = "ledger") {
  int terminal = -1;
  const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid == 0) {
    setenv("TERM", kind, 1);
    const std::string path = control.toStdString();
    (void)!freopen("/dev/null", "w", stdout);
    execl("/bin/sh", "sh", "-c", "'" VARDELL_BIN_DIR "/vardellctl' --control \"$0\" $1",
          path.c_str(), words, static_cast<char*>(nullptr));
    _exit(127);
  }
  QByteArray sent;
  char bytes[4096];
  for (ssize_t count; (count = read(terminal, bytes, sizeof bytes)) > 0;) sent.append(bytes, count);
  close(terminal);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return sent;
}

TEST(Terminal, LongWorkShowsOnATerminalHowFarItIsAndLeavesNothingBehind) {
  const QTemporaryDir folder;
  const QString path = folder.filePath(u"control.sock"_s);
  const ScriptedPeer slow(SlowPages(4, 200ms), path);
  const QByteArray sent = OnTerminal(path, "vt100");
  EXPECT_TRUE(sent.contains("\r\x1b[KReading the ledger: 2")) << sent.data();
  EXPECT_TRUE(sent.endsWith("\r\x1b[K")) << sent.data();
  EXPECT_FALSE(sent.contains("Reading the ledger: 0")) << sent.data();
}

TEST(Terminal, AServerThatWorksWithoutAWordIsSeenToBeWaitedFor) {
  const QTemporaryDir folder;
  const QString path = folder.filePath(u"control.sock"_s);
  const ScriptedPeer slow({[](PeerConnection& peer) {
                            (void)ScriptedHttpPeer::ReadRequest(peer);
                            peer.Pause(600ms);
                            peer.Send(Answer(200, R"({"limits":[],"usage":[]})"));
                          }},
                          path);
  const std::string words = "backup " + folder.filePath(u"file"_s).toStdString();
  const QByteArray sent = OnTerminal(path, "vt100", words.c_str());
  EXPECT_TRUE(sent.contains("\r\x1b[KAsking the Server, 0 s\r\x1b[K")) << sent.data();
}

TEST(Terminal, QuickWorkADumbTerminalAndAPipeShowNothing) {
  const QTemporaryDir folder;
  const QString quick = folder.filePath(u"quick.sock"_s);
  const QString slow = folder.filePath(u"slow.sock"_s);
  const QString piped = folder.filePath(u"piped.sock"_s);
  const ScriptedPeer quickly(SlowPages(4, 0ms), quick);
  const ScriptedPeer slowly(SlowPages(4, 200ms), slow);
  const ScriptedPeer again(SlowPages(4, 200ms), piped);
  EXPECT_EQ(OnTerminal(quick, "vt100"), "");
  EXPECT_EQ(OnTerminal(slow, "dumb"), "");
  EXPECT_EQ(RunAt(piped, {u"ledger"_s}).error, QString());
}

}  // namespace
}  // namespace vardell::test
