#include "server/Store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <stdexcept>

#include "Common Sources/FileSystem.h"
#include "server/Sqlite.h"
#include "server/SqliteSchema.h"
#include "tests/server/HouseholdFixture.h"

namespace vardell::server {
namespace {

class StoreTest : public HouseholdFixture {
 protected:
  void Close() { household_.reset(); }
};

void Execute(const QString& path, const char* sql) {
  SqliteDatabase database(path);
  database.Execute(sql);
}

void Overwrite(const QString& path, const QByteArray& bytes, const std::vector<qint64>& offsets) {
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::ReadWrite));
  for (const qint64 offset : offsets) {
    file.seek(offset);
    file.write(bytes);
  }
}

// The one line that the person who starts the Server reads.
void ExpectRefused(const QString& path, const char* says) {
  SCOPED_TRACE(says);
  try {
    (void)OpenStore(path)->Load({});
    ADD_FAILURE() << "opened";
  } catch (const std::runtime_error& error) {
    const QString complaint = QString::fromUtf8(error.what());
    EXPECT_TRUE(complaint.contains(QLatin1String(says))) << qPrintable(complaint);
    EXPECT_TRUE(complaint.contains(path)) << qPrintable(complaint);
    EXPECT_FALSE(complaint.contains(QLatin1Char('\n'))) << qPrintable(complaint);
  }
}

TEST_F(StoreTest, IsForItsOwnerAlone) {
  Limit({{QStringLiteral("Credit"), 5}});
  for (const char* suffix : {"", "-wal"}) {
    struct stat facts {};
    ASSERT_EQ(stat((StorePath().toStdString() + suffix).c_str(), &facts), 0) << suffix;
    EXPECT_EQ(facts.st_mode & 0777, 0600u) << suffix;
  }
}

TEST_F(StoreTest, EveryAdministrativeChangeIsAudited) {
  Limit({{QStringLiteral("WD start"), 480}});
  Limit({{QStringLiteral("WD start"), 490}});
  EXPECT_EQ(household_->RemoveLimits(root_, anna_, game_, 2).status, AdminStatus::Ok);
  Close();
  SqliteDatabase database(StorePath());
  SqliteStatement row(database, "SELECT actor, before, after FROM audit ORDER BY id");
  ASSERT_TRUE(row.Step());
  EXPECT_EQ(row.Text(1), QString());
  ASSERT_TRUE(row.Step());
  EXPECT_EQ(row.Text(0), root_.name);
  EXPECT_TRUE(row.Text(1).contains(QStringLiteral("\"WD start\":480")));
  EXPECT_TRUE(row.Text(2).contains(QStringLiteral("\"WD start\":490")));
  ASSERT_TRUE(row.Step());
  EXPECT_TRUE(row.Text(1).contains(QStringLiteral("\"WD start\":490")));
  EXPECT_EQ(row.Text(2), QString());
}

// The digest is what the first version stored for the change of credit that is repeated here.
TEST_F(StoreTest, AStoreOfEarlierVersionsKeepsEverything) {
  Close();
  ASSERT_TRUE(QFile::remove(StorePath()));
  {
    SqliteDatabase database(StorePath());
    PrepareStore(database, StorePath(), 1);
    database.Execute(R"sql(
      INSERT INTO limits VALUES ('anna', 'org.example.game', 5.5, 1, 1, 60, 2, 1, 90, 480, 1200, 500,
                                 1300, 1, 0, 1, 700, 7);
      INSERT INTO credit VALUES ('anna', 'org.example.game', 40, 1);
      INSERT INTO lanes VALUES ('anna', 'org.example.game', 'local', 'boot-1', 60000);
      INSERT INTO ledger VALUES (3, '2009-03-04T18:00:00.000+01:00', '2009-03-04', 'anna',
          'org.example.game', '', 'admin', 45, 45, 0, NULL, 'uid 0 (root)', 'homework');
      INSERT INTO ledger VALUES (4, '2009-03-04T19:00:00.000+01:00', '2009-03-04', 'anna',
          'org.example.game', 'local', 'report', -5, 40, 5, 40, 'agent of anna', '');
      INSERT INTO adjustments VALUES ('a1',
          x'0ade796d3d93081ab428a76e6c8657c7258469ee0e70cadece240fe2ec4bf1f3');)sql");
    PrepareStore(database, StorePath(), 2);
    database.Execute(R"sql(
      INSERT INTO adjustments VALUES ('a2', x'00', 12);
      INSERT INTO removed_limits VALUES ('ben', 'org.example.game', 9);
      INSERT INTO audit VALUES (1, '', '', '', '', '', '', '');)sql");
  }
  {
    const auto store = OpenStore(StorePath());
    const StoreContents contents = store->Load(bootId_);
    ASSERT_EQ(contents.limits.size(), 1u);
    const LimitsEntry& entry = contents.limits[0];
    EXPECT_EQ(entry.revision, 7u);
    EXPECT_EQ(entry.limits.nextTopUpTime, 5.5);
    EXPECT_EQ(entry.limits.weekEndStop, 1300);
    EXPECT_EQ(entry.limits.diskQuotaValue, 700);
    EXPECT_EQ(entry.options, LimitOptions());
    EXPECT_TRUE(contents.credit.at(0).spent);
    EXPECT_EQ(contents.lanes.size(), 1u);
    EXPECT_EQ(contents.removed.at(0).revision, 9u);
    EXPECT_EQ(contents.usage.at(0).minutes, 5);
    EXPECT_EQ(store->Adjustment(QStringLiteral("a2"))->added, 12);
  }
  Open();
  EXPECT_EQ(Ledger().size(), 2u);
  const QString id = QStringLiteral("a1");
  EXPECT_EQ(household_->SetCredit(root_, anna_, game_, 45, id, QStringLiteral("homework")).status,
            AdminStatus::Ok);
  EXPECT_EQ(Credit(), 40) << "applied a second time";
  EXPECT_EQ(household_->AddCredit(root_, anna_, game_, 45, id, QStringLiteral("homework")).status,
            AdminStatus::IdReused);
  EXPECT_EQ(household_->RemoveLimits(root_, anna_, game_, 7).status, AdminStatus::Ok);
  Close();
  EXPECT_THROW(Execute(StorePath(), "DELETE FROM ledger"), SqliteError);
}

TEST_F(StoreTest, SaysInOneLineWhatIsWrongWithIt) {
  for (int i = 1; i <= 200; ++i) Limit({{QStringLiteral("Credit"), i}});
  ExpectRefused(StorePath(), "in use");
  Close();
  const QByteArray whole = LoadFile(StorePath().toUtf8(), 1 << 24).value_or("");
  ASSERT_GT(whole.size(), 40000);
  std::vector<qint64> pages;
  for (qint64 offset = 4096 * 2; offset < whole.size(); offset += 4096) pages.push_back(offset);
  const qint64 audit = whole.indexOf("\"AutoUpdateCoeff\"");  // on a page that no start-up reads
  ASSERT_GT(audit, 0);
  const struct {
    const char* says;
    std::function<void(const QString& path)> damage;
  } rows[] = {
      {"damaged", [](auto path) { Overwrite(path, QByteArray(8192, 'x'), {0}); }},
      {"damaged", [&](auto path) { Overwrite(path, QByteArray(2048, '\x5a'), pages); }},
      {"damaged",
       [&](auto path) { Overwrite(path, QByteArray(8, '\x5a'), {audit / 4096 * 4096}); }},
      {"not the sum of", [](auto path) { Execute(path, "UPDATE credit SET minutes = 5000"); }},
      {"top-ups anna, org.example.game, has had cannot be read",
       [](auto path) {
         Execute(path, "INSERT INTO top_ups VALUES ('anna', 'org.example.game', '{')");
       }},
      {"newer version",
       [](auto path) { Execute(path, "INSERT INTO migrations VALUES (99, 'tomorrow')"); }},
      {"another program",
       [](auto path) {
         EXPECT_TRUE(QFile::remove(path));
         Execute(path, "CREATE TABLE recipes (name TEXT)");
       }},
  };
  for (const auto& row : rows) {
    const QString path = folder_.filePath(QStringLiteral("%1.sqlite").arg(&row - rows));
    Overwrite(path, whole, {0});
    EXPECT_NO_THROW(OpenStore(path)->Load({})) << "undamaged";
    row.damage(path);
    ExpectRefused(path, row.says);
  }
  ExpectRefused(folder_.filePath(QStringLiteral("no/such/store.sqlite")), "--store");
  ExpectRefused(folder_.path(), "--store");
}

}  // namespace
}  // namespace vardell::server
