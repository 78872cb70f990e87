#include "server/Log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtEndian>
#include <algorithm>
#include <map>
#include <thread>

#include "Common Sources/Caps.h"
#include "server/LogLimit.h"
#include "tests/support/Program.h"

namespace vardell::server {
namespace {

using namespace test;

using Fields = std::map<QByteArray, QByteArray>;

// An entry as the journal reads it; empty where it cannot.
Fields ReadEntry(const QByteArray& entry) {
  Fields fields;
  for (qsizetype at = 0; at < entry.size();) {
    const qsizetype end = entry.indexOf('\n', at);
    const qsizetype equals = entry.indexOf('=', at);
    if (end < 0) return {};
    QByteArray name = entry.mid(at, end - at);
    QByteArray value;
    if (equals >= 0 && equals < end) {
      value = entry.mid(equals + 1, end - equals - 1);
      name = entry.mid(at, equals - at);
      at = end + 1;
    } else {
      if (entry.size() < end + 9) return {};
      const auto size = qFromLittleEndian<quint64>(entry.constData() + end + 1);
      value = entry.mid(end + 9, static_cast<qsizetype>(size));
      at = end + 9 + static_cast<qsizetype>(size) + 1;
      if (at > entry.size() || entry[at - 1] != '\n') return {};
    }
    if (name.isEmpty() || fields.contains(name)) return {};
    fields[name] = value;
  }
  return fields;
}

class LogTest : public testing::Test {
 protected:
  void SetUp() override {
    QDir().mkpath(folder_.filePath(QStringLiteral("run/systemd/journal")));
    place_.journal = folder_.filePath(QStringLiteral("run/systemd/journal/socket"));
    output_ = folder_.filePath(QStringLiteral("output"));
    fd_ = open(qPrintable(output_), O_RDWR | O_CREAT | O_APPEND, 0600);
    struct stat facts {};
    ASSERT_EQ(fstat(fd_, &facts), 0);
    place_.standardError = fd_;
    place_.stream = QByteArray::number(qulonglong{facts.st_dev}) + ':' +
                    QByteArray::number(qulonglong{facts.st_ino});
  }
  void TearDown() override {
    close(fd_);
    CloseJournal();
  }

  void OpenJournal() {
    journal_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray path = QFile::encodeName(place_.journal);
    std::copy(path.begin(), path.end(), address.sun_path);
    ASSERT_EQ(bind(journal_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }
  void CloseJournal() {
    if (journal_ >= 0) close(journal_);
    QFile::remove(place_.journal);
    journal_ = -1;
  }
  Fields NextEntry() const {
    QByteArray entry(1 << 16, '\0');
    pollfd wait{journal_, POLLIN, 0};
    if (poll(&wait, 1, 20000) != 1) return {};
    entry.resize(std::max<ssize_t>(0, recv(journal_, entry.data(), 1 << 16, 0)));
    return ReadEntry(entry);
  }
  bool IsJournalEmpty() const {
    pollfd wait{journal_, POLLIN, 0};
    return poll(&wait, 1, 0) == 0;
  }
  QByteArray Output() const {
    QFile file(output_);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
  }

  QTemporaryDir folder_;
  QString output_;
  Log::Place place_;
  int fd_ = -1;
  int journal_ = -1;
};

LogEvent Refusal() {
  LogEvent event("kill-refused", LogPriority::Warning, QStringLiteral("refused"));
  event.user = QStringLiteral("anna");
  event.identifier = QStringLiteral("org.example.game");
  event.peerUid = 4242;
  event.pid = 4711;
  return event;
}

TEST_F(LogTest, AnEntryHasItsFieldsAndOneThatIsALineHasNoOthers) {
  OpenJournal();
  const Log log(place_);
  log.Write(Refusal());
  EXPECT_EQ(NextEntry(), (Fields{{"MESSAGE", "refused"},
                                 {"PRIORITY", "4"},
                                 {"SYSLOG_IDENTIFIER", "vardell-server"},
                                 {"VARDELL_EVENT", "kill-refused"},
                                 {"VARDELL_USER", "anna"},
                                 {"VARDELL_IDENTIFIER", "org.example.game"},
                                 {"VARDELL_PEER_UID", "4242"},
                                 {"VARDELL_PID", "4711"}}));
  log.Write(QStringLiteral("a line"));
  EXPECT_EQ(
      NextEntry(),
      (Fields{{"MESSAGE", "a line"}, {"PRIORITY", "6"}, {"SYSLOG_IDENTIFIER", "vardell-server"}}));
  EXPECT_EQ(Output(), "");
}

TEST_F(LogTest, NoTextFromOutsideMakesALineOrAField) {
  const QString hostile = QStringLiteral("x\nPRIORITY=0\r\x1b[2J\u009b\u2028\u202e\xe9") +
                          QString(QChar(0)) + QString(QChar(0xd800));
  const QByteArray harmless =
      QByteArray("x\\u000aPRIORITY=0\\u000d\\u001b[2J\\u009b") + "\\u2028\\u202e\xc3\xa9\\u0000";
  LogEvent event = Refusal();
  event.message = event.user = event.identifier = hostile;
  OpenJournal();
  const Log log(place_);
  log.Write(event);
  const Fields fields = NextEntry();
  EXPECT_EQ(fields.size(), 8u);
  for (const char* name : {"MESSAGE", "VARDELL_USER", "VARDELL_IDENTIFIER"}) {
    ASSERT_TRUE(fields.contains(name)) << name;
    EXPECT_TRUE(fields.at(name).startsWith(harmless)) << fields.at(name).constData();
  }
  CloseJournal();
  log.Write(event);
  EXPECT_TRUE(Output().startsWith("vardell-server: " + harmless));
  EXPECT_EQ(Output().count('\n'), 1);

  EXPECT_EQ(ReadEntry(JournalField("A", "1\nB=2") + JournalField("C", "3")),
            (Fields{{"A", "1\nB=2"}, {"C", "3"}}));
}

TEST_F(LogTest, WhatIsTooLongIsCut) {
  OpenJournal();
  const Log log(place_);
  LogEvent event = Refusal();
  event.message = event.user = QString(1 << 20, QChar(0x20ac));
  log.Write(event);
  const Fields fields = NextEntry();
  ASSERT_EQ(fields.size(), 8u);
  const QByteArray& message = fields.at("MESSAGE");
  EXPECT_EQ(message.size(), static_cast<qsizetype>(kMaxLogTextBytes));
  EXPECT_EQ(QString::fromUtf8(message), QString(message.size() / 3, QChar(0x20ac)));
}

// --- Where there is no journal, or it does not take it.

TEST_F(LogTest, ElsewhereALineGoesToStandardError) {
  const struct {
    const char* what;
    QByteArray stream;
    bool isJournalOpen;
    bool isFull;
  } kRows[] = {
      {"not started by the service manager", "", true, false},
      {"standard error was redirected since", "1:2", true, false},
      {"no number", place_.stream + "x", true, false},
      {"the journal has gone", place_.stream, false, false},
      {"the journal does not read", place_.stream, true, true},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    ASSERT_EQ(ftruncate(fd_, 0), 0);
    place_.stream = row.stream;
    if (row.isJournalOpen) OpenJournal();
    const Log log(place_);
    for (int i = 0; row.isFull && i < 100000 && Output().isEmpty(); ++i) log.Write(Refusal());
    if (!row.isFull) log.Write(Refusal());
    EXPECT_EQ(Output(), "vardell-server: refused\n");
    EXPECT_TRUE(!row.isJournalOpen || IsJournalEmpty() != row.isFull);
    CloseJournal();
  }
}

TEST_F(LogTest, ThreadsWriteAtOnce) {
  const Log log(place_);  // to standard error: no journal
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 250; ++n) log.Write(Refusal());
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Output(), QByteArray("vardell-server: refused\n").repeated(1000));
}

TEST_F(LogTest, TheProgramFindsTheJournalByItself) {
  OpenJournal();
  Program server({VARDELL_BIN_DIR "/vardell-server", "--frobnicate"},
                 {.environment = {{"VARDELL_TEST_ROOT", folder_.path().toStdString()},
                                  {"JOURNAL_STREAM", place_.stream.toStdString()}},
                  .output = output_.toStdString()});
  EXPECT_EQ(server.Wait(), 2);
  const Fields fields = NextEntry();
  ASSERT_TRUE(fields.contains("MESSAGE"));
  EXPECT_TRUE(fields.at("MESSAGE").contains("--frobnicate"));
  EXPECT_EQ(Output(), "");
}

// --- Floods.

TEST(LogLimit, OfEachUserAndKindAFewLinesAMinuteAndThenTheirNumber) {
  LogLimit limit;
  const auto admitted = [&](const char* name, std::optional<std::uint32_t> uid, int times) {
    LogEvent event(name, LogPriority::Warning, QString());
    event.peerUid = uid;
    int count = 0;
    for (int i = 0; i < times; ++i) count += limit.Admit(event) ? 1 : 0;
    return count;
  };
  EXPECT_TRUE(limit.IsIdle());
  EXPECT_EQ(admitted("kill-refused", 1001, 1000), kMaxLogLinesPerMinute);
  EXPECT_EQ(admitted("kill-done", 1001, 3), 3) << "is not hidden by those";
  EXPECT_EQ(admitted("kill-refused", 1002, 3), 3) << "nor is another user's";
  const std::vector<LogEvent> sums = limit.EndMinute();
  ASSERT_EQ(sums.size(), 1u);
  EXPECT_EQ(sums[0].message, QStringLiteral("uid 1001: %1 more lines like these (kill-refused) "
                                            "within a minute")
                                 .arg(1000 - kMaxLogLinesPerMinute));
  EXPECT_EQ(sums[0].peerUid, 1001u);
  EXPECT_EQ(admitted("kill-refused", 1001, 1000), kMaxLogLinesPerMinute) << "the next minute";
  int lines = 0;
  for (std::uint32_t uid = 100000; uid < 110000; ++uid) lines += admitted("kill-refused", uid, 20);
  EXPECT_LE(lines, (static_cast<int>(kMaxLogUsers) + 1) * kMaxLogLinesPerMinute) << "many uids";
  EXPECT_LE(limit.EndMinute().size(), kMaxLogUsers + 1);
}

}  // namespace
}  // namespace vardell::server
