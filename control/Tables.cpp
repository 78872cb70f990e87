#include "control/Tables.h"

#include <QDateTime>
#include <QTimeZone>
#include <algorithm>

#include "control/LimitsKeys.h"

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

QString Hours(const QJsonObject& keys, const QString& day) {
  if (!keys[day + QStringLiteral(" Curfew Enabled")].toBool()) {
    return QStringLiteral("any time");
  }
  return ClockText(keys[day + QStringLiteral(" start")].toInt()) + QStringLiteral(" to ") +
         ClockText(keys[day + QStringLiteral(" stop")].toInt(1439));
}

QString TopUp(const QJsonObject& keys) {
  const qint64 value = keys[QStringLiteral("AutoUpdateValue")].toInteger();
  if (value == 0 || keys[QStringLiteral("NextAutoUpdate")].toDouble() == 0) {
    return QStringLiteral("none");
  }
  return QString::number(value) + (keys[QStringLiteral("AutoUpdateCoeff")].toInt(1) == 60
                                       ? QStringLiteral(" h")
                                       : QStringLiteral(" min"));
}

QString Quota(const QJsonObject& keys) {
  return keys[QStringLiteral("DQ Enabled")].toBool()
             ? NumberText(keys[QStringLiteral("DQ Value")]) + QStringLiteral(" MiB")
             : QStringLiteral("none");
}

QString KeyText(const QString& key, const QJsonObject& limit) {
  const QJsonValue value = limit[QStringLiteral("limits")].toObject()[key];
  if (key == QLatin1String("Credit")) {
    return NumberText(limit[QStringLiteral("credit")]) + QStringLiteral(" min");
  }
  if (key == QLatin1String("NextAutoUpdate")) {
    return TopUpTime(value);
  }
  if (key.endsWith(QLatin1String(" start")) || key.endsWith(QLatin1String(" stop"))) {
    return ClockText(value.toInt());
  }
  return value.isBool() ? YesNo(value) : NumberText(value);
}

bool IsNumber(const QString& cell) {
  bool number = false;
  (void)cell.toLongLong(&number);
  return number || cell == QLatin1String("-");
}

struct Column {
  qsizetype width = 0;
  bool numbers = true;
};

std::vector<Column> Measure(const std::vector<QStringList>& rows) {
  std::vector<Column> columns;
  for (std::size_t row = 0; row < rows.size(); ++row) {
    columns.resize(std::max(columns.size(), static_cast<std::size_t>(rows[row].size())));
    for (qsizetype i = 0; i < rows[row].size(); ++i) {
      Column& column = columns[static_cast<std::size_t>(i)];
      column.width = std::max(column.width, rows[row][i].size());
      column.numbers = column.numbers && (row == 0 || IsNumber(rows[row][i]));
    }
  }
  return columns;
}

}  // namespace

QString Printable(const QString& text) {
  QString clean = text;
  for (QChar& c : clean) {
    if (c.category() == QChar::Other_Control || c.category() == QChar::Other_Format ||
        c.category() == QChar::Separator_Line || c.category() == QChar::Separator_Paragraph) {
      c = QChar::ReplacementCharacter;
    }
  }
  return clean;
}

QString AlignedTable(const std::vector<QStringList>& rows) {
  const std::vector<Column> columns = Measure(rows);
  QString text;
  for (const QStringList& row : rows) {
    QString line;
    for (qsizetype i = 0; i < row.size(); ++i) {
      const Column& column = columns[static_cast<std::size_t>(i)];
      line += i == 0 ? QString() : QStringLiteral("  ");
      line +=
          column.numbers ? row[i].rightJustified(column.width) : row[i].leftJustified(column.width);
    }
    while (line.endsWith(QLatin1Char(' '))) {
      line.chop(1);
    }
    text += line + QLatin1Char('\n');
  }
  return text;
}

QString StatusText(const QJsonObject& status) {
  const QJsonValue published = status[QStringLiteral("published")];
  return QStringLiteral(
             "Version:    %1\nStore:      %2\nAddress:    %3\nPublished:  %4\nAgents:     "
             "%5\nStarted:    %6\n")
      .arg(Printable(status[QStringLiteral("version")].toString()),
           Printable(status[QStringLiteral("store")].toString()),
           Printable(status[QStringLiteral("address")].toString()),
           published.isString() ? Printable(published.toString()) : QStringLiteral("no"),
           NumberText(status[QStringLiteral("agents")]),
           Printable(LocalTime(status[QStringLiteral("started")])));
}

QString LimitsTable(const QJsonArray& limits) {
  std::vector<QStringList> rows{{QStringLiteral("USER"), QStringLiteral("IDENTIFIER"),
                                 QStringLiteral("CREDIT"), QStringLiteral("ENABLED"),
                                 QStringLiteral("WEEK DAYS"), QStringLiteral("WEEK-ENDS"),
                                 QStringLiteral("TOP-UP"), QStringLiteral("QUOTA")}};
  for (const QJsonValue& value : limits) {
    const QJsonObject limit = value.toObject();
    const QJsonObject keys = limit[QStringLiteral("limits")].toObject();
    rows.push_back({Printable(limit[QStringLiteral("user")].toString()),
                    Printable(limit[QStringLiteral("identifier")].toString()),
                    NumberText(limit[QStringLiteral("credit")]),
                    YesNo(keys[QStringLiteral("Enabled")]), Hours(keys, QStringLiteral("WD")),
                    Hours(keys, QStringLiteral("WE")), TopUp(keys), Quota(keys)});
  }
  return AlignedTable(rows);
}

QString LimitsSheet(const QJsonObject& limit) {
  std::vector<QStringList> rows{
      {QStringLiteral("User"), Printable(limit[QStringLiteral("user")].toString())},
      {QStringLiteral("Identifier"), Printable(limit[QStringLiteral("identifier")].toString())}};
  for (const QString& key : LimitsKeys()) {
    rows.push_back({key, KeyText(key, limit)});
  }
  rows.push_back({QStringLiteral("Revision"),
                  QStringLiteral("%1").arg(limit[QStringLiteral("revision")].toInteger())});
  return AlignedTable(rows);
}

QString CreditTable(const QJsonArray& limits) {
  std::vector<QStringList> rows{
      {QStringLiteral("USER"), QStringLiteral("IDENTIFIER"), QStringLiteral("MINUTES")}};
  for (const QJsonValue& value : limits) {
    const QJsonObject limit = value.toObject();
    rows.push_back({Printable(limit[QStringLiteral("user")].toString()),
                    Printable(limit[QStringLiteral("identifier")].toString()),
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
         Printable(row[QStringLiteral("identifier")].toString()),
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
