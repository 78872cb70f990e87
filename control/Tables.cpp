#include "control/Tables.h"

#include <QDateTime>
#include <QTimeZone>
#include <algorithm>

#include "control/Answers.h"
#include "control/LimitsKeys.h"
#include "control/ScheduleText.h"
#include "limits/LimitsKeys.h"
#include "limits/WatchedApps.h"

namespace vardell::control {
namespace {

QString NumberText(const QJsonValue& value) {
  return value.isDouble() ? QString::number(value.toInteger()) : QStringLiteral("-");
}

QString YesNo(const QJsonValue& value) {
  return value.toBool() ? QStringLiteral("yes") : QStringLiteral("no");
}

QString LocalTime(const QJsonValue& value) {
  const QDateTime time = QDateTime::fromString(value.toString(), Qt::ISODateWithMs);
  return time.isValid() ? time.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"))
                        : value.toString();
}

QString TopUpTime(const QJsonValue& value) {
  const qint64 seconds = static_cast<qint64>(std::clamp(value.toDouble(), 0.0, 4294967295.0));
  const QDateTime origin(QDate(2001, 1, 1), QTime(0, 0), QTimeZone::utc());
  return seconds == 0 ? QStringLiteral("none")
                      : origin.addSecs(seconds).toLocalTime().toString(
                            QStringLiteral("yyyy-MM-dd HH:mm:ss"));
}

QJsonValue OptionOf(const QJsonObject& limit, const char* field) {
  return limit[QStringLiteral("options")].toObject()[QLatin1String(field)];
}

// A schedule takes the place of the session's hours, and joins those of an application.
QString Hours(const QJsonObject& limit, const QString& day) {
  const QJsonObject keys = limit[QStringLiteral("limits")].toObject();
  const bool hasHours = keys[day + QStringLiteral(" Curfew Enabled")].toBool();
  const bool isSession =
      limit[QStringLiteral("identifier")].toString() == QLatin1String(kLoginWindowIdentifier);
  if (OptionOf(limit, "schedule").isObject() && (isSession || !hasHours)) {
    return QStringLiteral("by schedule");
  }
  if (!hasHours) {
    return QStringLiteral("any time");
  }
  return ClockText(keys[day + QStringLiteral(" start")].toInt()) + QStringLiteral(" to ") +
         ClockText(keys[day + QStringLiteral(" stop")].toInt(1439));
}

QString CapText(const QJsonValue& cap) {
  return cap.isDouble() ? NumberText(cap) + QStringLiteral(" min") : QStringLiteral("none");
}

QString RollOver(const QJsonObject& options) {
  if (!options[QStringLiteral("rollOver")].toBool()) return {};
  const QJsonValue cap = options[QStringLiteral("rollOverCap")];
  const QString text = QStringLiteral(", rolls over");
  return cap.isDouble() ? text + QStringLiteral(" up to ") + CapText(cap) : text;
}

QString TopUp(const QJsonObject& limit) {
  const QJsonObject keys = limit[QStringLiteral("limits")].toObject();
  const qint64 value = keys[QStringLiteral("AutoUpdateValue")].toInteger();
  if (value == 0) return QStringLiteral("none");
  if (HasNoNextTopUp(limit)) return QStringLiteral("none: no next time");
  const bool isHours = keys[QStringLiteral("AutoUpdateCoeff")].toInt(1) == 60;
  return QString::number(value) + (isHours ? QStringLiteral(" h") : QStringLiteral(" min")) +
         RollOver(limit[QStringLiteral("options")].toObject());
}

QString CreditCell(const QJsonObject& limit) {
  return OptionOf(limit, "unlimited").toBool() ? QStringLiteral("unlimited")
                                               : NumberText(limit[QStringLiteral("credit")]);
}

QString Quota(const QJsonObject& keys) {
  return keys[QStringLiteral("DQ Enabled")].toBool()
             ? NumberText(keys[QStringLiteral("DQ Value")]) + QStringLiteral(" MiB")
             : QStringLiteral("none");
}

// The keys that this limit has; options only where its Server knows them.
QStringList KeysOf(const QJsonObject& limit) {
  QStringList keys;
  for (const LimitsKey& key : AllLimitsKeys()) {
    if (key.ofQuota || !IsHome(limit)) keys.append(QLatin1String(key.name));
  }
  const QJsonObject options = limit[QStringLiteral("options")].toObject();
  for (const QString& key : LimitsOptions()) {
    if (options.contains(OptionField(key)) && !IsHome(limit)) keys.append(key);
  }
  return keys;
}

QString OptionText(const QString& option, const QJsonValue& value) {
  if (value.isBool()) return YesNo(value);
  if (option == QLatin1String("rollOverCap")) return CapText(value);
  if (value.isObject()) return ScheduleSummary(value.toObject());
  return value.isString() ? Printable(value.toString()) : QStringLiteral("none");
}

QString KeyText(const QString& key, const QJsonObject& limit) {
  const QString option = OptionField(key);
  if (!option.isEmpty()) {
    return OptionText(option, limit[QStringLiteral("options")].toObject()[option]);
  }
  const QJsonValue value = limit[QStringLiteral("limits")].toObject()[key];
  if (key == QLatin1String("Credit")) {
    return NumberText(limit[QStringLiteral("credit")]) + QStringLiteral(" min");
  }
  if (key == QLatin1String("NextAutoUpdate")) {
    return HasNoNextTopUp(limit) ? QStringLiteral("none: so no top-up comes") : TopUpTime(value);
  }
  if (key == QLatin1String("DQ Value")) {
    return NumberText(value) + QStringLiteral(" MiB");
  }
  if (key.endsWith(QLatin1String(" start")) || key.endsWith(QLatin1String(" stop"))) {
    return ClockText(value.toInt());
  }
  return value.isBool() ? YesNo(value) : NumberText(value);
}

QString StoreText(const QJsonObject& status) {
  const QString store = Printable(status[QStringLiteral("store")].toString());
  const QJsonValue schema = status[QStringLiteral("schema")];
  return schema.isDouble() ? QStringLiteral("%1, schema %2").arg(store, NumberText(schema)) : store;
}

bool IsAway(const QJsonObject& status) {
  return status[QStringLiteral("storeAway")].isString();
}

QString ReachText(const QJsonObject& status) {
  if (!IsAway(status)) return QStringLiteral("up");
  const QJsonValue since = status[QStringLiteral("storeAwaySince")];
  const QString when =
      since.isString() ? QStringLiteral(" since %1").arg(Printable(LocalTime(since))) : QString();
  return QStringLiteral("AWAY%1: %2")
      .arg(when, Printable(status[QStringLiteral("storeAway")].toString()));
}

QString SpooledText(const QJsonObject& status) {
  const qint64 spooled = status[QStringLiteral("spooled")].toInteger();
  if (spooled == 0) return QStringLiteral("nothing");
  return QStringLiteral("%1 %2 on disk until the store takes %3")
      .arg(spooled)
      .arg(spooled == 1 ? QStringLiteral("change is kept") : QStringLiteral("changes are kept"),
           spooled == 1 ? QStringLiteral("it") : QStringLiteral("them"));
}

QString WaitingText(const QJsonObject& status) {
  const qint64 waiting = status[QStringLiteral("waiting")].toInteger();
  if (waiting == 0) return QStringLiteral("nothing");
  return QStringLiteral("%1 %2 not on disk yet; journalctl -u vardell-server says why")
      .arg(waiting)
      .arg(waiting == 1 ? QStringLiteral("change is") : QStringLiteral("changes are"));
}

QString CreditText(const QJsonValue& credit) {
  if (!credit.isDouble()) return QStringLiteral("no limit");
  if (credit.toInteger() == kSpentCredit) return QStringLiteral("spent");
  return NumberText(credit) + QStringLiteral(" min");
}

QString ApplicationsText(const QJsonArray& applications) {
  QStringList texts;
  for (const QJsonValue& application : applications) {
    texts.append(QStringLiteral("%1 (%2)").arg(
        ShownIdentifier(application[QStringLiteral("identifier")].toString()),
        application[QStringLiteral("unlimited")].toBool()
            ? QStringLiteral("unlimited")
            : CreditText(application[QStringLiteral("credit")])));
  }
  return texts.isEmpty() ? QStringLiteral("-") : texts.join(QStringLiteral(", "));
}

}  // namespace

bool IsHome(const QJsonObject& limit) {
  return limit[QStringLiteral("identifier")].toString() == QLatin1String(kGlobalSettingsIdentifier);
}

bool HasNoNextTopUp(const QJsonObject& limit) {
  const QJsonObject keys = limit[QStringLiteral("limits")].toObject();
  return keys[QStringLiteral("AutoUpdateValue")].toInteger() != 0 &&
         keys[QStringLiteral("NextAutoUpdate")].toDouble() == 0;
}

QString StatusText(const QJsonObject& status, const QString& ownVersion) {
  const auto text = [&](const char* field) {
    return Printable(status[QLatin1String(field)].toString());
  };
  const auto number = [&](const char* field) { return NumberText(status[QLatin1String(field)]); };
  std::vector<QStringList> rows{{QStringLiteral("Server:"), text("version")}};
  if (text("version") != ownVersion) {
    rows.push_back({QStringLiteral("vardellctl:"),
                    ownVersion + QStringLiteral(", another version than the Server's")});
  }
  rows.push_back({QStringLiteral("Store:"), StoreText(status)});
  // An older Server does not tell.
  const bool tellsOfStore = status.contains(QStringLiteral("storeAway"));
  if (tellsOfStore) rows.push_back({QStringLiteral("Store is:"), ReachText(status)});
  rows.push_back({QStringLiteral("Address:"), text("address")});
  rows.push_back({QStringLiteral("Published:"), status[QStringLiteral("published")].isString()
                                                    ? text("published")
                                                    : QStringLiteral("no")});
  rows.push_back(
      {QStringLiteral("Started:"), Printable(LocalTime(status[QStringLiteral("started")]))});
  rows.push_back({QStringLiteral("Time zone:"), text("zone")});
  rows.push_back({QStringLiteral("Users:"), number("users")});
  rows.push_back({QStringLiteral("Limits:"), number("limits")});
  rows.push_back({QStringLiteral("Waiting:"), WaitingText(status)});
  if (tellsOfStore) rows.push_back({QStringLiteral("Spooled:"), SpooledText(status)});
  rows.push_back({QStringLiteral("Agents:"), number("agents")});
  return AlignedTable(rows);
}

QString AwayText(const QJsonObject& status) {
  if (!IsAway(status)) return {};
  return QStringLiteral(
      "\n"
      "The store is away. Agents go on, and what they use is kept until it is back; limits and "
      "credit\n"
      "cannot be changed until then. See to its database or its disk as said above: the Server "
      "finds\n"
      "it again by itself within seconds. journalctl -u vardell-server tells more.\n");
}

QString AgentsTable(const QJsonArray& agents) {
  std::vector<QStringList> rows{{QStringLiteral("USER"), QStringLiteral("HOST"),
                                 QStringLiteral("SINCE"), QStringLiteral("APPLICATIONS")}};
  for (const QJsonValue& value : agents) {
    const QJsonObject agent = value.toObject();
    const QString user = Printable(agent[QStringLiteral("user")].toString());
    rows.push_back({user.isEmpty() ? QStringLiteral("-") : user,
                    Printable(agent[QStringLiteral("host")].toString()),
                    Printable(LocalTime(agent[QStringLiteral("since")])),
                    ApplicationsText(agent[QStringLiteral("applications")].toArray())});
  }
  return AlignedTable(rows);
}

QString LimitsTable(const QJsonArray& limits) {
  std::vector<QStringList> rows{{QStringLiteral("USER"), QStringLiteral("IDENTIFIER"),
                                 QStringLiteral("CREDIT"), QStringLiteral("ENABLED"),
                                 QStringLiteral("WEEK DAYS"), QStringLiteral("WEEK-ENDS"),
                                 QStringLiteral("TOP-UP"), QStringLiteral("QUOTA")}};
  for (const QJsonValue& value : limits) {
    const QJsonObject limit = value.toObject();
    const QJsonObject keys = limit[QStringLiteral("limits")].toObject();
    const QString none = QStringLiteral("-");
    const bool isHome = IsHome(limit);
    rows.push_back({Printable(limit[QStringLiteral("user")].toString()),
                    ShownIdentifier(limit[QStringLiteral("identifier")].toString()),
                    isHome ? none : CreditCell(limit),
                    isHome ? none : YesNo(keys[QStringLiteral("Enabled")]),
                    isHome ? none : Hours(limit, QStringLiteral("WD")),
                    isHome ? none : Hours(limit, QStringLiteral("WE")),
                    isHome ? none : TopUp(limit), Quota(keys)});
  }
  return AlignedTable(rows);
}

QString LimitsSheet(const QJsonObject& limit) {
  std::vector<QStringList> rows{
      {QStringLiteral("User"), Printable(limit[QStringLiteral("user")].toString())},
      {QStringLiteral("Identifier"),
       ShownIdentifier(limit[QStringLiteral("identifier")].toString())}};
  for (const QString& key : KeysOf(limit)) {
    rows.push_back({key, KeyText(key, limit)});
  }
  rows.push_back({QStringLiteral("Revision"),
                  QStringLiteral("%1").arg(limit[QStringLiteral("revision")].toInteger())});
  return AlignedTable(rows);
}

QString ChangesTable(const QJsonObject& before, const QJsonObject& after) {
  std::vector<QStringList> rows{
      {QStringLiteral("KEY"), QStringLiteral("BEFORE"), QStringLiteral("NOW")}};
  for (const QString& key : KeysOf(after)) {
    const QString was = KeyText(key, before);
    const QString is = KeyText(key, after);
    if (was != is) rows.push_back({key, was, is});
  }
  return rows.size() > 1 ? AlignedTable(rows) : QString();
}

QString CreditTable(const QJsonArray& limits) {
  std::vector<QStringList> rows{
      {QStringLiteral("USER"), QStringLiteral("IDENTIFIER"), QStringLiteral("MINUTES")}};
  for (const QJsonValue& value : limits) {
    const QJsonObject limit = value.toObject();
    if (IsHome(limit)) continue;
    rows.push_back({Printable(limit[QStringLiteral("user")].toString()),
                    ShownIdentifier(limit[QStringLiteral("identifier")].toString()),
                    NumberText(limit[QStringLiteral("credit")])});
  }
  return AlignedTable(rows);
}

QString LedgerTable(const QJsonArray& ledger) {
  std::vector<QStringList> rows{
      {QStringLiteral("ID"), QStringLiteral("TIME"), QStringLiteral("USER"),
       QStringLiteral("IDENTIFIER"), QStringLiteral("SOURCE"), QStringLiteral("MINUTES"),
       QStringLiteral("CREDIT"), QStringLiteral("CLAIMED"), QStringLiteral("HOST"),
       QStringLiteral("ACTOR"), QStringLiteral("REASON")}};
  for (const QJsonValue& value : ledger) {
    const QJsonObject row = value.toObject();
    rows.push_back(
        {NumberText(row[QStringLiteral("id")]), Printable(LocalTime(row[QStringLiteral("time")])),
         Printable(row[QStringLiteral("user")].toString()),
         ShownIdentifier(row[QStringLiteral("identifier")].toString()),
         Printable(row[QStringLiteral("source")].toString()),
         NumberText(row[QStringLiteral("minutes")]), NumberText(row[QStringLiteral("credit")]),
         NumberText(row[QStringLiteral("claimed")]),
         Printable(row[QStringLiteral("host")].toString()),
         Printable(row[QStringLiteral("actor")].toString()),
         Printable(row[QStringLiteral("reason")].toString())});
  }
  return AlignedTable(rows);
}

}  // namespace vardell::control
