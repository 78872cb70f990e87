// Stores of both kinds and what is written to them.
#pragma once

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <map>
#include <memory>
#include <optional>

#include "server/LimitsKeys.h"
#include "server/PostgresStore.h"
#include "server/Store.h"
#include "tests/support/PostgresCluster.h"

namespace vardell::server {

using Name = std::pair<QString, QString>;

// One for the whole test program.
class StoreTestBase {
 protected:
  static test::PostgresCluster& Cluster() {
    static test::PostgresCluster cluster;
    return cluster;
  }
  static void Sql(const QString& uri, const QString& statements) {
    using namespace std::chrono_literals;
    PostgresConnecting connecting(ReadPostgresAddress(uri));
    const auto connection = connecting.Wait(10s);
    if (!connection) throw std::runtime_error("no answer");
    connection->Execute("SET statement_timeout = 0", PostgresClock::now() + 10s);
    connection->Execute(statements.toUtf8().constData(), PostgresClock::now() + 10s);
  }
  static QString NewDatabase(const QString& with = {}) {
    static int number = 0;
    const QString name = QStringLiteral("test%1").arg(++number);
    Sql(Cluster().Uri(QStringLiteral("postgres")),
        QStringLiteral("CREATE DATABASE %1 %2").arg(name, with));
    return name;
  }
  // The same one again, emptied.
  static QString NewStore() {
    const QString uri = Cluster().Uri(QStringLiteral("postgres"));
    Sql(uri, QStringLiteral("DROP SCHEMA IF EXISTS vardell CASCADE"));
    return uri;
  }
};

// Of tests that are not about a database that does not answer.
inline constexpr std::chrono::seconds kUnhurried{10};

inline const QString kBoot = QStringLiteral("boot-1");
inline const Name kAnnasGame{QStringLiteral("anna"), QStringLiteral("org.example.game")};
inline const Name kBensChat{QStringLiteral("ben"), QStringLiteral("org.example.chat")};

inline LedgerRow RowOf(const Name& name, const char* source, std::int64_t minutes,
                       std::int64_t credit, std::int64_t used = 0) {
  LedgerRow row;
  row.time = QDateTime(QDate(2026, 3, 4), QTime(18, 0, 0, 250), Qt::OffsetFromUTC, 3600);
  row.user = name.first;
  row.identifier = name.second;
  row.source = QLatin1String(source);
  row.minutes = minutes;
  row.credit = credit;
  row.used = used;
  row.actor = QStringLiteral("uid 0 (root)");
  row.reason = QStringLiteral("für Anna, \"gut\"; DROP TABLE ledger -- 🎈");
  return row;
}

// An administrator sets a credit, and makes the limit where there is none.
inline StoreChange Setting(const Name& name, std::uint64_t basedOn, std::int64_t before,
                           std::int64_t minutes, std::uint64_t revision = 1) {
  StoreChange change;
  change.basedOn = basedOn;
  LimitsEntry entry;
  entry.user = name.first;
  entry.identifier = name.second;
  entry.limits = NewLimits();
  entry.revision = revision;
  change.limits = entry;
  change.credit = {name.first, name.second, minutes, false};
  if (minutes != before) change.ledger = RowOf(name, "admin", minutes - before, minutes);
  change.audit = AuditRow{RowOf(name, "", 0, 0).time,
                          QStringLiteral("root"),
                          QStringLiteral("limits"),
                          name.first,
                          name.second,
                          {},
                          {}};
  return change;
}

inline StoreChange Removing(const Name& name, std::uint64_t basedOn, std::int64_t before,
                            std::uint64_t revision = 1) {
  StoreChange change;
  change.basedOn = basedOn;
  change.removed = {name.first, name.second, revision};
  if (before != 0) change.ledger = RowOf(name, "admin", -before, 0);
  return change;
}

// An agent's report, as a Server that believes in `credit` books it.
inline StoreChange Use(const Name& name, std::int64_t used, std::int64_t credit,
                       const char* source = "report") {
  const bool isGrace = QByteArray(source) == "grace";
  const std::int64_t charge = isGrace ? 0 : std::min(used, credit);
  StoreChange change;
  change.ledger = RowOf(name, source, -charge, credit - charge, used);
  change.ledger->host = QStringLiteral("local");
  change.ledger->claimed = static_cast<std::int32_t>(credit - used);
  change.credit = {name.first, name.second, credit - charge, credit == charge};
  change.lane = {name.first, name.second, QStringLiteral("local"),
                 std::chrono::milliseconds(60000 * used)};
  return change;
}

// Everything of it, sorted, one line each.
inline QStringList Lines(const StoreContents& contents, bool withVersions = false) {
  QStringList lines;
  const auto add = [&](const char* what, const auto& row, const QString& rest) {
    lines.append(
        QStringLiteral("%1 %2 %3 %4").arg(QLatin1String(what), row.user, row.identifier, rest));
  };
  for (const auto& row : contents.limits) {
    add("limits", row,
        QStringLiteral("revision %1 next %2 wd %3 unlimited %4 cap %5 schedule %6 parallel %7")
            .arg(row.revision)
            .arg(row.limits.nextTopUpTime)
            .arg(row.limits.weekDayStart)
            .arg(row.options.unlimited)
            .arg(row.options.cap.value_or(-1))
            .arg(row.options.schedule.has_value())
            .arg(row.options.parallel == Parallel::Union));
  }
  for (const auto& row : contents.credit) {
    add("credit", row,
        QStringLiteral("%1 spent %2 version %3")
            .arg(row.minutes)
            .arg(row.spent)
            .arg(withVersions ? row.version : 0));
  }
  for (const auto& row : contents.removed) add("removed", row, QString::number(row.revision));
  for (const auto& row : contents.topUps) {
    add("top-up", row, QStringLiteral("%1 %2").arg(row.nextTime).arg(PrintTopUpMemory(row.memory)));
  }
  for (const auto& row : contents.lanes) {
    add("lane", row, QStringLiteral("%1 %2").arg(row.host).arg(row.paidUntil.count()));
  }
  for (const auto& row : contents.usage) {
    add("usage", row, QStringLiteral("%1 %2").arg(row.day.toString(Qt::ISODate)).arg(row.minutes));
  }
  lines.sort();
  return lines;
}

}  // namespace vardell::server
