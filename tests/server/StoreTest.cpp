#include "server/Store.h"

#include <sys/stat.h>

#include <QFile>
#include <stdexcept>

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
    EXPECT_EQ(store->Adjustment(QStringLiteral("a1"))->added, 0);
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

// A file that is damaged is in StoreTroubleTest.
TEST_F(StoreTest, SaysInOneLineWhatIsWrongWithIt) {
  Limit({{QStringLiteral("Credit"), 5}});
  ExpectRefused(StorePath(), "in use");
  Close();
  const struct {
    const char* says;
    const char* sql;
  } rows[] = {
      {"not the sum of", "UPDATE credit SET minutes = 5000"},
      {"top-ups anna, org.example.game, has had cannot be read",
       "INSERT INTO top_ups VALUES ('anna', 'org.example.game', '{')"},
      {"newer version", "INSERT INTO migrations VALUES (99, 'tomorrow')"},
  };
  for (const auto& row : rows) {
    const QString path = folder_.filePath(QStringLiteral("%1.sqlite").arg(&row - rows));
    ASSERT_TRUE(QFile::copy(StorePath(), path));
    EXPECT_NO_THROW(OpenStore(path)->Load({})) << "as it was";
    Execute(path, row.sql);
    ExpectRefused(path, row.says);
  }
  const QString another = folder_.filePath(QStringLiteral("another"));
  Execute(another, "CREATE TABLE recipes (name TEXT)");
  ExpectRefused(another, "another program");
  ExpectRefused(folder_.filePath(QStringLiteral("no/such/store.sqlite")), "--store");
  ExpectRefused(folder_.path(), "--store");
}

}  // namespace
}  // namespace vardell::server
