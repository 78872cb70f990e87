// Disks that are full or may not be written, and files that are damaged, under a real Server: it
// says what to do, overwrites nothing, and loses nothing that it could keep.
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <QRegularExpression>

#include "server/Spool.h"
#include "server/Store.h"
#include "tests/server/CrashLoad.h"
#include "tests/server/StoreFixture.h"

namespace vardell::server {
namespace {

// None where there is no file.
QByteArray Bytes(const std::string& path) {
  QFile file(QString::fromStdString(path));
  return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void SetBytes(const std::string& path, const QByteArray& bytes) {
  QFile file(QString::fromStdString(path));
  ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
  ASSERT_EQ(file.write(bytes), bytes.size());
}

class StoreTroubleTest : public CrashFixture {
 protected:
  void SetUp() override {
    CrashFixture::SetUp();
    if (IsSkipped()) return;
    ASSERT_EQ(mkdir(disk_.c_str(), 0755), 0);
  }
  void TearDown() override { (void)umount2(disk_.c_str(), MNT_DETACH); }

  void MountDisk(const char* options) {
    ASSERT_EQ(mount("vardell-test", disk_.c_str(), "tmpfs", 0, options), 0) << strerror(errno);
  }
  // To the last byte.
  void FillDisk() const {
    const int file = open((disk_ + "/filler").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const std::string block(4096, 'x');
    while (write(file, block.data(), block.size()) > 0) continue;
    close(file);
  }
  void MakeRoom() const { unlink((disk_ + "/filler").c_str()); }

  void Begin(RealServer& server, Load& load) const {
    ASSERT_TRUE(server.Start());
    for (const QString& name : applications_) ASSERT_EQ(server.MakeLimit(name).status, 201);
    load.AddAgents(applications_, {{server.Port()}});
    load.AddAdministrator(server, applications_, QStringLiteral("a"));
    ASSERT_TRUE(load.Goes(3));
  }
  // Some use, on disk, and the Server ended.
  void MakeStore(const RealServer::Options& options) const {
    RealServer server(options);
    Load load;
    Begin(server, load);
    load.CheckEnd(server);
    server.Process().End(SIGTERM);
  }

  // With one line, and every file as it was.
  void ExpectRefused(const RealServer::Options& options, const char* says, const std::string& what,
                     bool isStoreMade = false) const {
    const std::string files[] = {options.store, options.store + "-wal",
                                 options.spool.empty() ? options.folder + "/spool" : options.spool};
    const std::size_t first = isStoreMade ? 2 : 0;
    std::vector<QByteArray> before;
    for (const std::string& file : files) before.push_back(Bytes(file));
    RealServer server(options);
    server.Launch();
    EXPECT_EQ(server.Process().Wait(), 1) << what;
    const QString output = server.Log();
    EXPECT_EQ(output.count(QLatin1Char('\n')), 1) << what << ": " << qPrintable(output);
    EXPECT_TRUE(output.contains(QLatin1String(says))) << what << ": " << qPrintable(output);
    EXPECT_TRUE(output.contains(QRegularExpression(QStringLiteral("; (put|make|stop|give|move)"))))
        << what << ": " << qPrintable(output);
    for (std::size_t i = first; i < before.size(); ++i) {
      EXPECT_TRUE(Bytes(files[i]) == before[i]) << what << ": " << files[i] << " was written";
    }
  }

  const QStringList applications_ = Load::Applications(4);
  const std::string disk_ = Path("disk");
};

TEST_F(StoreTroubleTest, AFullDiskKeepsNobodyWaitingAndLosesNothing) {
  MountDisk("size=8m");  // the write-ahead log alone has up to 4
  RealServer server(
      {folder_.path().toStdString(), disk_ + "/store.sqlite", 45000, {}, disk_ + "/spool"});
  Load load;
  Begin(server, load);
  for (int round = 1; round <= CampaignOr("VARDELL_TEST_ROUNDS", 1); ++round) {
    FillDisk();
    ASSERT_TRUE(WaitUntil([&] { return server.Count("is full; make room there") >= round; }));
    ASSERT_TRUE(load.Goes(2)) << qPrintable(server.Log());
    ASSERT_TRUE(WaitUntil([&] { return server.Says("changes wait in memory alone"); }));
    EXPECT_EQ(server.Count("is full; make room there"), round) << qPrintable(server.Log());
    ASSERT_TRUE(WaitUntil([&] {
      return load.Administrator()
          .Look()
          .sentences.join(QLatin1Char('\n'))
          .contains(QStringLiteral("make room there"));
    }));
    MakeRoom();
    load.Check(server);
    EXPECT_EQ(server.Count("takes changes again"), round) << qPrintable(server.Log());
  }
  EXPECT_EQ(load.Administrator().Look().refusals, std::set<int>{503});
  server.Kill();
  ASSERT_TRUE(server.Start());
  load.CheckEnd(server);
}

TEST_F(StoreTroubleTest, WithTheSpoolElsewhereAFullDiskLosesNothingToAKill) {
  MountDisk("size=8m");  // the write-ahead log alone has up to 4
  RealServer server({folder_.path().toStdString(), disk_ + "/store.sqlite"});
  Load load;
  Begin(server, load);
  FillDisk();
  ASSERT_TRUE(WaitUntil([&] { return server.Says("is full; make room there"); }));
  ASSERT_TRUE(load.Goes(5)) << qPrintable(server.Log());
  server.Kill();
  server.Launch();
  ASSERT_TRUE(WaitUntil([&] { return server.Says("make room there; waiting for it"); }))
      << qPrintable(server.Log());
  MakeRoom();
  ASSERT_TRUE(server.WaitUntilReady()) << qPrintable(server.Log());
  load.Check(server);
  load.CheckEnd(server);
}

TEST_F(StoreTroubleTest, ADamagedStoreIsLeftAsItIs) {
  const RealServer::Options options{folder_.path().toStdString(), Path("store.sqlite")};
  MakeStore(options);
  const QByteArray whole = Bytes(options.store);
  constexpr qsizetype kPage = 4096;
  ASSERT_GT(whole.size(), 10 * kPage);
  const auto expect = [&](const QByteArray& bytes, const char* says, const std::string& what) {
    SetBytes(options.store, bytes);
    ExpectRefused(options, says, what);
  };
  expect("this is no database, but some letter to an aunt\n", "damaged", "a letter");
  expect(QByteArray(100000, '\0'), "damaged", "zeroes");
  expect({}, "is empty", "nothing");
  for (const qsizetype size : {qsizetype{1}, qsizetype{99}, qsizetype{511}, kPage - 1, kPage,
                               whole.size() / 2, whole.size() - kPage}) {
    expect(whole.first(size), "damaged", "cut to " + std::to_string(size));
  }
  for (qsizetype at = 0; at < whole.size(); at += kPage) {
    for (const char filler : {'x', '\0'}) {
      QByteArray bytes = whole;
      bytes.replace(at, kPage, QByteArray(kPage, filler));
      expect(bytes, "damaged", "page " + std::to_string(at / kPage));
    }
  }
  SetBytes(options.store, whole);
  RealServer server(options);
  EXPECT_TRUE(server.Start());
  EXPECT_EQ(server.MakeLimit(QStringLiteral("another")).status, 201);
  server.Kill();
  ASSERT_GT(Bytes(options.store + "-wal").size(), kPage);
  QByteArray damaged = whole;
  damaged.replace(kPage, damaged.size() - kPage, QByteArray(damaged.size() - kPage, 'x'));
  expect(damaged, "damaged", "with changes of a Server that was killed");
  expect({}, "is empty", "nothing but changes of a Server that was killed");
}

// --- The spool.

TEST_F(StoreTroubleTest, OfADamagedSpoolEverythingBeforeTheDamageIsApplied) {
  MountDisk("size=8m");  // which syncs fast
  const RealServer::Options options{disk_, disk_ + "/store.sqlite"};
  MakeStore(options);
  const QByteArray store = Bytes(options.store);
  const QString path = QString::fromStdString(options.folder + "/spool");
  constexpr int kChanges = 4;
  const qsizetype begin = Bytes(path.toStdString()).size();
  std::vector<qsizetype> ends{begin};
  std::int64_t credit = 0;
  {
    Spool spool(path);
    const auto opened = OpenStore(QString::fromStdString(options.store));
    opened->SetServerId(spool.ServerId());
    const std::uint64_t last = opened->LastNumber();
    for (const CreditRow& row : opened->Load(QString()).credit) {
      if (row.identifier == QStringLiteral("app0")) credit = row.minutes;
    }
    for (int i = 1; i <= kChanges; ++i) {
      const StoreChange change = Use({MyName(), QStringLiteral("app0")}, 1, credit - i + 1);
      QString error;
      ASSERT_TRUE(spool.Append({{last + static_cast<std::uint64_t>(i), change}}, &error));
      ends.push_back(Bytes(path.toStdString()).size());
    }
  }
  const QByteArray spooled = Bytes(path.toStdString());
  const auto expect = [&](const QByteArray& bytes, int whole, bool isSaid, const char* what) {
    SetBytes(options.store, store);
    unlink((options.store + "-wal").c_str());
    SetBytes(path.toStdString(), bytes);
    RealServer server(options);
    ASSERT_TRUE(server.Start()) << what;
    EXPECT_EQ(server.Says("was damaged"), isSaid) << what;
    EXPECT_EQ(server.Ask("GET", LimitPath(QStringLiteral("app0")))
                  .body.value(QLatin1String("credit"))
                  .toInteger(),
              credit - whole)
        << what << " of " << bytes.size();
    EXPECT_TRUE(!isSaid || Bytes(path.toStdString() + ".damaged") == bytes.mid(ends[whole]))
        << what;
    server.Kill();
  };
  // As the Server reads it, at each byte; by a real one where something changes.
  for (qsizetype size = 0; size <= spooled.size(); ++size) {
    const auto whole = std::upper_bound(ends.begin(), ends.end(), size) - ends.begin() - 1;
    SetBytes(path.toStdString(), spooled.first(size));
    const Spool spool(path);
    ASSERT_EQ(spool.Count(), std::max<std::int64_t>(whole, 0)) << size;
    ASSERT_FALSE(spool.WasDamaged()) << size << ": an end that was not written whole";
  }
  for (int i = 1; i <= kChanges; ++i) {
    expect(spooled.first(ends[i]), i, false, "cut behind a change");
    expect(spooled.first(ends[i] - 1), i - 1, false, "cut within a change");
  }
  QByteArray damaged = spooled;
  damaged[ends[2] + 20] = static_cast<char>(damaged[ends[2] + 20] ^ 1);
  expect(damaged, 2, true, "damaged in its middle");
}

TEST_F(StoreTroubleTest, WhatMayNotBeWrittenIsRefusedInOneLine) {
  RealServer::Options options{folder_.path().toStdString(), disk_ + "/store.sqlite"};
  MountDisk("size=4m");
  MakeStore(options);
  {
    RealServer running(options);
    ASSERT_TRUE(running.Start());
    RealServer::Options second = options;
    second.store = Path("other.sqlite");
    second.folder = Path("second");
    ASSERT_EQ(mkdir(second.folder.c_str(), 0755), 0);
    second.spool = options.folder + "/spool";
    ExpectRefused(second, "another vardell-server has it", "a spool in use", true);
    unlink(second.store.c_str());
    second.store = options.store;
    ExpectRefused(second, "in use by another program", "a store in use");
    running.Process().End(SIGTERM);
  }
  ASSERT_EQ(mount(nullptr, disk_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  ExpectRefused(options, "Read-only file system", "a disk that is read-only");
  ASSERT_EQ(mount(nullptr, disk_.c_str(), nullptr, MS_REMOUNT, nullptr), 0);

  // As an ordinary user.
  ASSERT_EQ(chmod(folder_.path().toUtf8().constData(), 0777), 0);
  options.uid = 65534;
  ExpectRefused(options, "Permission denied", "another's file");
  unlink((options.folder + "/spool").c_str());
  ASSERT_EQ(chown(options.store.c_str(), options.uid, static_cast<gid_t>(-1)), 0);
  ASSERT_EQ(chmod(disk_.c_str(), 0755), 0);
  ExpectRefused(options, "make its folder writable", "another's folder");
  ASSERT_EQ(chown(disk_.c_str(), options.uid, static_cast<gid_t>(-1)), 0);
  ASSERT_EQ(chmod(options.store.c_str(), 0400), 0);
  ExpectRefused(options, "Permission denied", "a file that may not be written");
}

}  // namespace
}  // namespace vardell::server
