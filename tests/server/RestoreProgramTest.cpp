// A restore by the real vardell-server, which is killed in the midst of it.
#include "server/Backup.h"
#include "tests/server/ServerProgramFixture.h"

namespace vardell::server {
namespace {

class RestoreProgramTest : public ServerProgramFixture {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: a restore is for root alone";
    ServerProgramFixture::SetUp();
  }

  // `minutes` is in every part of it.
  static QByteArray BackupOf(int minutes) {
    Backup backup;
    for (int user = 0; user < 4; ++user) {
      const QString name = QStringLiteral("user%1-%2").arg(user).arg(user < 2 ? 0 : minutes);
      const QString identifier = QStringLiteral("org.example.game");
      LimitsEntry entry{name, identifier, {}, minutes, 0};
      entry.limits.topUpCoefficient = 1;
      entry.limits.weekDayStart = minutes;
      backup.limits.push_back(entry);
      UsageEntry usage{name, identifier, {}};
      for (int day = 0; day < 1500; ++day) usage.days[QDate(2009, 3, 5).addDays(day)] = minutes;
      backup.usage.push_back(usage);
    }
    return WriteBackup(backup, {}, {});
  }

  std::unique_ptr<Client> SendRestore(const QByteArray& backup) const {
    auto client = std::make_unique<Client>(QString::fromStdString(Path("control")));
    client->Send("PUT /v1/backup HTTP/1.1\r\nHost: x\r\nContent-Length: " +
                 QByteArray::number(backup.size()) + "\r\n\r\n" + backup);
    return client;
  }

  bool IsUnfinished() const {
    return OpenStore(QString::fromStdString(Path("store.sqlite")))->HasUnfinishedRestore();
  }
  QByteArray State() const { return WriteBackup(OpenHousehold()->MakeBackup(), {}, {}); }
};

TEST_F(RestoreProgramTest, KilledAtAnyInstantItLeavesTheOldStateOrTheNew) {
  const QByteArray backups[] = {BackupOf(1), BackupOf(2)};
  ASSERT_GT(backups[0].size(), qsizetype{64 << 10}) << "a body above the others' bound";
  StartServer();
  EXPECT_TRUE(SendRestore(backups[0])->ReadUntil("}\n").contains("200 OK"));
  const auto begin = Clock::now();
  EXPECT_TRUE(SendRestore(backups[1])->ReadUntil("}\n").contains("200 OK"));
  const auto whole = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
  server_.End(SIGKILL);
  ASSERT_TRUE(State() == backups[1]);

  constexpr int kRounds = 20;
  int kept[2] = {0, 0};
  int unfinished = 0;
  int now = 1;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    StartServer();
    const int wanted = 1 - now;
    const auto client = SendRestore(backups[wanted]);
    const bool isAnswered = WaitUntil([&] { return client->HasSomethingToRead(); },
                                      round + 1 < kRounds ? whole * round / kRounds : kPatience);
    server_.End(SIGKILL);
    if (IsUnfinished()) ++unfinished;
    const QByteArray state = State();
    if (state == backups[wanted]) now = wanted;
    EXPECT_TRUE(state == backups[now]) << "neither the one nor the other";
    EXPECT_TRUE(!isAnswered || now == wanted) << "it was answered";
    ++kept[now == wanted];
  }
  std::printf("%d rounds left the old state (%d of them with rows of the new), %d the new\n",
              kept[0], unfinished, kept[1]);
  EXPECT_GT(unfinished, 0);
  EXPECT_GT(kept[0], 0);
  EXPECT_GT(kept[1], 0);
}

}  // namespace
}  // namespace vardell::server
