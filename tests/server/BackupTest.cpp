#include "server/Backup.h"

#include "limits/WatchedApps.h"
#include "link/LimitsRecord.h"
#include "tests/server/ControlApiFixture.h"

namespace vardell::server {
namespace {

// Two users: three limits, the global settings, use with and without limits.
class BackupTest : public ControlApi {
 protected:
  void SetUp() override {
    ControlApi::SetUp();
    Limit({{QStringLiteral("DQ Enabled"), true}, {QStringLiteral("DQ Value"), 700}},
          QLatin1String(kGlobalSettingsIdentifier), anna_);
    Limit({{QStringLiteral("Credit"), 5}, {QStringLiteral("NextAutoUpdate"), 1.5}},
          QStringLiteral("a \"b\"\u00e9\U0001F3AE"), QStringLiteral("ben"));
    Launch(0);
    (void)Fetch();
    Report(1, 29);
    Limit({{QStringLiteral("Credit"), 9}}, QStringLiteral("gone"), anna_);
    connection_.id = 5;
    household_->ApplicationStarted(connection_, anna_, QStringLiteral("gone"));
    (void)household_->FetchLimits(connection_, anna_, QStringLiteral("gone"));
    household_->CreditReport(connection_, anna_, QStringLiteral("gone"), 8);
    Remove(QStringLiteral("gone"), anna_);
  }

  void Remove(const QString& identifier, const QString& user) {
    const auto entry = household_->Limits(user, identifier);
    EXPECT_EQ(household_->RemoveLimits(root_, user, identifier, entry->revision).status,
              AdminStatus::Ok);
  }
  std::string BackupText() { return Text(Ask("GET", "/v1/backup")); }
  std::string Restored(const std::string& backup, const char* target = "/v1/backup") {
    return Text(Ask("PUT", target, QByteArray::fromStdString(backup)));
  }
};

const char* const kBackup =
    R"({"format":1,"made":"2009-03-05T18:00:00.000+01:00","server":"0.1","limits":[)"
    R"({"credit":0,"identifier":"com.brenwick.globalSettings",)"
    R"("limits":{"DQ Enabled":true,"DQ Value":700},"user":"anna"},)"
    R"({"credit":29,"identifier":"org.example.game","limits":{"AutoUpdateCoeff":1,)"
    R"("AutoUpdateValue":0,"DQ Enabled":false,"DQ Value":0,"Enabled":true,"NextAutoUpdate":0,)"
    R"("Report Credit":false,"WD Curfew Enabled":false,"WD start":480,"WD stop":1439,)"
    R"("WE Coeff":0,"WE Curfew Enabled":false,"WE Value":0,"WE start":0,"WE stop":1439},)"
    R"("user":"anna"},)"
    R"({"credit":5,"identifier":"a \"b\"é🎮","limits":{"AutoUpdateCoeff":1,)"
    R"("AutoUpdateValue":0,"DQ Enabled":false,"DQ Value":0,"Enabled":true,"NextAutoUpdate":1.5,)"
    R"("Report Credit":false,"WD Curfew Enabled":false,"WD start":0,"WD stop":1439,)"
    R"("WE Coeff":0,"WE Curfew Enabled":false,"WE Value":0,"WE start":0,"WE stop":1439},)"
    R"("user":"ben"}],"usage":[)"
    R"({"days":{"2009-03-05":1},"identifier":"gone","user":"anna"},)"
    R"({"days":{"2009-03-05":1},"identifier":"org.example.game","user":"anna"}]})";

TEST_F(BackupTest, HoldsEverythingAndBringsItBack) {
  EXPECT_EQ(BackupText(), kBackup);
  const std::size_t rows = Ledger().size();
  EXPECT_EQ(Restored(kBackup),
            R"({"check":false,"limits":{"added":0,"changed":0,"removed":0,"same":3}})");
  EXPECT_EQ(Ledger().size(), rows) << "what is the same is not booked";

  Limit({{QStringLiteral("WD start"), 500}, {QStringLiteral("Credit"), 100}});
  Remove(QStringLiteral("a \"b\"\u00e9\U0001F3AE"), QStringLiteral("ben"));
  Limit({{QStringLiteral("Credit"), 70}}, QStringLiteral("new"), QStringLiteral("carl"));
  now_ = now_.addDays(1);
  Launch(5000);
  (void)Fetch();
  Report(5001, 99);
  const std::string counts = R"("limits":{"added":1,"changed":1,"removed":1,"same":1}})";
  const std::string changed = BackupText();
  EXPECT_EQ(Restored(kBackup, "/v1/backup?check=1"), R"({"check":true,)" + counts);
  EXPECT_EQ(BackupText(), changed) << "a check changes nothing";
  EXPECT_EQ(Restored(kBackup), R"({"check":false,)" + counts);
  now_ = now_.addDays(-1);
  for (const char* when : {"at once", "after a restart"}) {
    EXPECT_EQ(BackupText(), kBackup) << when;
    EXPECT_EQ(Text(Ask("GET", "/v1/users")), R"({"users":["anna","ben"]})") << when;
    EXPECT_EQ(household_->Limits(anna_, game_)->revision, 3u) << "two changes " << when;
    EXPECT_EQ(household_->Limits(QStringLiteral("ben"))[0].revision, 2u)
        << "made again, and no old revision, " << when;
    EXPECT_EQ(household_->Limits(anna_)[0].revision, 1u) << "the same " << when;
    Open();
  }

  QStringList booked;
  for (const LedgerRow& row : Ledger()) {
    if (row.source != QStringLiteral("restore")) continue;
    EXPECT_EQ(row.actor, requester_.actor.name);
    EXPECT_EQ(row.time.date(), QDate(2009, 3, 6)) << "when it was done";
    booked.append(QStringLiteral("%1 %2 %3 %4")
                      .arg(row.identifier, row.day.toString(Qt::ISODate))
                      .arg(row.minutes)
                      .arg(row.used));
  }
  EXPECT_EQ(booked.join(QStringLiteral(", ")),
            QStringLiteral("org.example.game 2009-03-06 0 -1, new 2009-03-06 -70 0, "
                           "org.example.game 2009-03-06 -70 0, "
                           "a \"b\"\u00e9\U0001F3AE 2009-03-06 5 0"));
}

TEST_F(BackupTest, AnOptionsProblemIsNamedAndGoodOnesComeBack) {
  const auto with = [&](const char* stop) {
    const QByteArray monday = R"([{"start":"20:00","stop":")" + QByteArray(stop) + R"("}])";
    std::string backup = kBackup;
    backup.insert(
        backup.find(R"("user":"anna"},)", backup.find("org.example.game")),
        R"("options":{"parallel":"union","rollOver":true,"rollOverCap":180,"schedule":{"days":)" +
            WeekOf("monday", monday).toStdString() +
            R"(,"holidays":[]},"scope":"user@host","unlimited":true},)");
    return backup;
  };
  const std::string refused = Restored(with("1:00"));
  EXPECT_NE(refused.find(R"("field":"limits[1].options.schedule.days.monday[0].stop")"),
            std::string::npos)
      << refused;
  EXPECT_EQ(BackupText(), kBackup);
  EXPECT_EQ(Restored(with("01:00")),
            R"({"check":false,"limits":{"added":0,"changed":1,"removed":0,"same":2}})");
  for (const char* when : {"at once", "after a restart"}) {
    EXPECT_EQ(BackupText(), with("01:00")) << when;
    Open();
  }
  (void)Restored(kBackup);
  EXPECT_EQ(household_->Limits(anna_, game_)->options, LimitOptions()) << "absent: the usual ones";
}

TEST_F(BackupTest, OnlyAnAdministratorMayHaveItOrPutItBack) {
  Be(Role::TopUp, "mum");
  EXPECT_EQ(Ask("GET", "/v1/backup").status, 403);
  EXPECT_EQ(Ask("PUT", "/v1/backup", kBackup).status, 403);
  EXPECT_EQ(Ask("PUT", "/v1/backup?check=1", kBackup).status, 403);
}

TEST_F(BackupTest, IsCheckedWholeBeforeAnythingIsChanged) {
  const std::string anna = R"("user":"anna")";
  const std::string days = R"("days":{"2009-03-05":1})";
  const std::string credit = R"("credit":29)";
  const struct {
    const char* what;
    std::string part;
    std::string instead;
    const char* field;
    const char* code = "bad-value";
    int status = 422;
  } kRows[] = {
      {"no JSON", R"({"format")", "format", "", "bad-request", 400},
      {"another format", R"("format":1)", R"("format":2)", "format"},
      {"a part too many", R"("format":1)", R"("format":1,"ledger":[])", "ledger"},
      {"limits that are no array", R"("limits":[{)", R"("limits":5,"x":[{)", "x"},
      {"an entry that is no object", R"("usage":[)", R"("usage":[7,)", "usage[0]"},
      {"a field too few", credit + ",", "", "limits[1].credit"},
      {"a control character", R"("org.example.game","limits")", R"("org\n","limits")",
       "limits[1].identifier"},
      {"an identifier that is no text", R"("org.example.game","limits")", R"(5,"limits")",
       "limits[1].identifier"},
      {"a limit twice", R"("org.example.game","limits")",
       R"("com.brenwick.globalSettings","limits")", "limits[1].identifier"},
      {"a key out of its range", R"("WD start":480)", R"("WD start":1440)",
       "limits[1].limits.WD start"},
      {"an unknown key", R"("WD start":480)", R"("WD start":480,"WD begin":1)",
       "limits[1].limits.WD begin", "unknown-key"},
      {"a missing key", R"("WD start":480,)", "", "limits[1].limits.WD start"},
      {"the credit among the keys", R"("WD start":480)", R"("Credit":5,"WD start":480)",
       "limits[1].limits.Credit", "unknown-key"},
      {"an unknown option", credit, credit + R"(,"options":{"roll":1})", "limits[1].options.roll",
       "unknown-key"},
      {"options that are no object", credit, credit + R"(,"options":5)", "limits[1].options"},
      {"an option of the global settings", R"("credit":0)",
       R"("credit":0,"options":{"rollOver":false})", "limits[0].options.rollOver"},
      {"a credit of the global settings", R"("credit":0)", R"("credit":1)", "limits[0].credit"},
      {"the value that means spent", credit, R"("credit":12345)", "limits[1].credit"},
      {"half a minute of credit", credit, R"("credit":0.5)", "limits[1].credit"},
      {"a day that does not exist", "2009-03-05\":1},\"identifier\":\"gone",
       "2009-02-29\":1},\"identifier\":\"gone", "usage[0].days.2009-02-29"},
      {"negative use", "2009-03-05\":1},\"identifier\":\"gone",
       "2009-03-05\":-1},\"identifier\":\"gone", "usage[0].days.2009-03-05"},
      {"use beyond all bounds", "2009-03-05\":1},\"identifier\":\"gone",
       "2009-03-05\":2147483648},\"identifier\":\"gone", "usage[0].days.2009-03-05"},
      {"a usage twice", R"("gone")", R"("org.example.game")", "usage[1].identifier"},
  };
  const std::size_t rows = Ledger().size();
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    std::string text = kBackup;
    const auto at = text.find(row.part);
    ASSERT_NE(at, std::string::npos);
    text.replace(at, row.part.size(), row.instead);
    // Whatever comes before the mistake would be changed.
    const auto stop = text.find(R"("WE stop":1439)");
    text.replace(stop, 14, R"("WE stop":1000)");
    for (const char* target : {"/v1/backup?check=1", "/v1/backup"}) {
      const ControlAnswer answer = Ask("PUT", target, QByteArray::fromStdString(text));
      EXPECT_EQ(answer.status, row.status) << Text(answer);
      EXPECT_EQ(Code(answer), row.code);
      EXPECT_EQ(Json(answer).value(QLatin1String("field")).toString().toStdString(), row.field)
          << Text(answer);
    }
  }
  EXPECT_EQ(BackupText(), kBackup);
  EXPECT_EQ(Ledger().size(), rows);
}

}  // namespace
}  // namespace vardell::server
