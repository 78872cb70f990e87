#include "server/Store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <stdexcept>

#include "server/Sqlite.h"
#include "tests/server/HouseholdFixture.h"

namespace vardell::server {
namespace {

class StoreTest : public HouseholdFixture {
 protected:
  void Close() { household_.reset(); }
  void ExecuteBehindItsBack(const char* sql) {
    SqliteDatabase database(StorePath());
    database.Execute(sql);
  }
  void Fill() {
    for (int i = 1; i <= 200; ++i) Limit({{QStringLiteral("Credit"), i}});
  }
  // What the person who starts the Server reads.
  QString Complaint() {
    try {
      Open();
    } catch (const std::runtime_error& error) {
      return QString::fromUtf8(error.what());
    }
    return {};
  }
};

void ExpectOneLine(const QString& complaint, const char* says, const QString& path) {
  EXPECT_TRUE(complaint.contains(QLatin1String(says))) << qPrintable(complaint);
  EXPECT_TRUE(complaint.contains(path)) << qPrintable(complaint);
  EXPECT_FALSE(complaint.contains(QLatin1Char('\n'))) << qPrintable(complaint);
}

TEST_F(StoreTest, IsForItsOwnerAlone) {
  Fill();
  for (const char* suffix : {"", "-wal"}) {
    struct stat facts {};
    ASSERT_EQ(stat((StorePath().toStdString() + suffix).c_str(), &facts), 0) << suffix;
    EXPECT_EQ(facts.st_mode & 0777, 0600u) << suffix;
  }
}

TEST_F(StoreTest, RefusesToRewriteHistory) {
  Fill();
  Close();
  for (const char* sql : {"UPDATE ledger SET minutes = 0", "DELETE FROM ledger",
                          "UPDATE audit SET actor = ''", "DELETE FROM audit"}) {
    EXPECT_THROW(ExecuteBehindItsBack(sql), SqliteError) << sql;
  }
}

TEST_F(StoreTest, NeverHoldsTheValueThatMeansSpent) {
  Fill();
  Close();
  EXPECT_THROW(ExecuteBehindItsBack("UPDATE credit SET minutes = 12345"), SqliteError);
}

TEST_F(StoreTest, EveryAdministrativeChangeIsAudited) {
  Limit({{QStringLiteral("WD start"), 480}});
  Limit({{QStringLiteral("WD start"), 490}});
  Close();
  SqliteDatabase database(StorePath());
  SqliteStatement row(database, "SELECT actor, before, after FROM audit ORDER BY id");
  ASSERT_TRUE(row.Step());
  EXPECT_EQ(row.Text(1), QString());
  ASSERT_TRUE(row.Step());
  EXPECT_EQ(row.Text(0), root_.name);
  EXPECT_TRUE(row.Text(1).contains(QStringLiteral("\"WD start\":480")));
  EXPECT_TRUE(row.Text(2).contains(QStringLiteral("\"WD start\":490")));
}

TEST_F(StoreTest, AChangeIsWrittenWholeOrNotAtAll) {
  Limit({{QStringLiteral("Credit"), 5}});
  Close();
  const auto store = Store::Open(StorePath());
  StoreChange good;
  good.credit = {anna_, game_, 77, false};
  StoreChange bad;
  bad.credit = {anna_, game_, 12345, false};
  QString error;
  EXPECT_FALSE(store->Apply({good, bad}, bootId_, &error));
  EXPECT_FALSE(error.isEmpty());
  EXPECT_EQ(store->Load(bootId_).credit.at(0).minutes, 5);
}

// --- What a start-up says when it cannot be.

TEST_F(StoreTest, SaysThatItIsInUse) {
  ExpectOneLine(
      [this] {
        try {
          (void)Store::Open(StorePath());
        } catch (const std::runtime_error& error) {
          return QString::fromUtf8(error.what());
        }
        return QString();
      }(),
      "in use", StorePath());
}

TEST_F(StoreTest, SaysThatItIsNoDatabase) {
  Close();
  QFile file(StorePath());
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  file.write(QByteArray(8192, 'x'));
  file.close();
  ExpectOneLine(Complaint(), "damaged", StorePath());
}

TEST_F(StoreTest, SaysThatPagesAreDamaged) {
  Fill();
  Close();
  QFile file(StorePath());
  ASSERT_TRUE(file.open(QIODevice::ReadWrite));
  ASSERT_GT(file.size(), 40000);
  for (qint64 offset = 4096 * 2; offset < file.size(); offset += 4096) {
    file.seek(offset);
    file.write(QByteArray(2048, '\x5a'));
  }
  file.close();
  ExpectOneLine(Complaint(), "damaged", StorePath());
}

TEST_F(StoreTest, SaysThatPagesAreDamagedThatNobodyReadsAtTheStart) {
  Fill();
  Close();
  QFile file(StorePath());
  ASSERT_TRUE(file.open(QIODevice::ReadWrite));
  const QByteArray bytes = file.readAll();
  const qsizetype audit = bytes.indexOf("\"AutoUpdateCoeff\"");
  ASSERT_GT(audit, 0);
  file.seek(audit / 4096 * 4096);
  file.write(QByteArray(8, '\x5a'));
  file.close();
  ExpectOneLine(Complaint(), "damaged", StorePath());
}

TEST_F(StoreTest, SaysThatTheCreditIsNotTheSumOfTheLedger) {
  Fill();
  Close();
  ExecuteBehindItsBack("UPDATE credit SET minutes = 5000");
  ExpectOneLine(Complaint(), "not the sum of", StorePath());
}

TEST_F(StoreTest, SaysThatItIsOfANewerVersion) {
  Close();
  ExecuteBehindItsBack("INSERT INTO migrations VALUES (2, 'tomorrow')");
  ExpectOneLine(Complaint(), "newer version", StorePath());
}

TEST_F(StoreTest, LeavesADatabaseOfSomebodyElseAlone) {
  Close();
  ASSERT_TRUE(QFile::remove(StorePath()));
  ExecuteBehindItsBack("CREATE TABLE recipes (name TEXT)");
  ExpectOneLine(Complaint(), "another program", StorePath());
  ExecuteBehindItsBack("INSERT INTO recipes VALUES ('soup')");
}

TEST_F(StoreTest, SaysThatTheFolderIsMissing) {
  const QString path = folder_.filePath(QStringLiteral("no/such/store.sqlite"));
  try {
    (void)Store::Open(path);
    ADD_FAILURE();
  } catch (const std::runtime_error& error) {
    ExpectOneLine(QString::fromUtf8(error.what()), "--store", path);
  }
}

TEST_F(StoreTest, SaysThatAFolderIsNoStore) {
  try {
    (void)Store::Open(folder_.path());
    ADD_FAILURE();
  } catch (const std::runtime_error& error) {
    ExpectOneLine(QString::fromUtf8(error.what()), "--store", folder_.path());
  }
}

}  // namespace
}  // namespace vardell::server
