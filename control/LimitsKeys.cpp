#include "control/LimitsKeys.h"

#include <QDateTime>
#include <QTimeZone>
#include <optional>

#include "limits/LimitsDictionary.h"
#include "limits/LimitsKeys.h"

namespace vardell::control {
namespace {

constexpr LimitsKey kRollOver{"Roll Over", LimitsValue::Flag};
constexpr LimitsKey kRollOverCap{"Roll Over Cap", LimitsValue::Number, 2147483647};

ParsedValue Refuse(const LimitsKey& key, const QString& text, const QString& orElse = {}) {
  return {QJsonValue(QJsonValue::Undefined),
          QStringLiteral("\"%1\" cannot be \"%2\": it takes %3")
              .arg(QLatin1String(key.name), text, AllowedValues(key) + orElse)};
}

std::optional<qint64> Whole(const QString& text) {
  bool plain = !text.isEmpty();
  for (const QChar c : text) {
    plain = plain && c >= QLatin1Char('0') && c <= QLatin1Char('9');
  }
  bool fits = false;
  const qint64 number = text.toLongLong(&fits);
  return plain && fits ? std::optional(number) : std::nullopt;
}

std::optional<qint64> WholeUpTo(const QString& text, qint64 most) {
  const auto number = Whole(text);
  return number && *number <= most ? number : std::nullopt;
}

ParsedValue ParseFlag(const LimitsKey& key, const QString& text) {
  const QString word = text.toLower();
  for (const char* yes : {"true", "yes", "on", "1"}) {
    if (word == QLatin1String(yes)) {
      return {true, {}};
    }
  }
  for (const char* no : {"false", "no", "off", "0"}) {
    if (word == QLatin1String(no)) {
      return {false, {}};
    }
  }
  return Refuse(key, text);
}

std::optional<qint64> ClockMinute(const QString& text) {
  const qsizetype colon = text.indexOf(QLatin1Char(':'));
  if (colon < 1 || colon > 2 || text.size() != colon + 3) {
    return std::nullopt;
  }
  const auto hours = WholeUpTo(text.left(colon), 24);
  const auto minutes = WholeUpTo(text.mid(colon + 1), 59);
  return hours && minutes ? std::optional(*hours * 60 + *minutes) : std::nullopt;
}

std::optional<qint64> SecondsUntil(const QString& text) {
  const QDateTime origin(QDate(2001, 1, 1), QTime(0, 0), QTimeZone::utc());
  const QDateTime time = QDateTime::fromString(text, Qt::ISODate);
  const bool isTime = text.contains(QLatin1Char('T')) && time.isValid();
  return isTime ? std::optional(origin.secsTo(time)) : std::nullopt;
}

ParsedValue ParseNumber(const LimitsKey& key, const QString& text) {
  std::optional<qint64> number = Whole(text);
  QString orElse;
  if (key.value == LimitsValue::Minute) {
    orElse = QStringLiteral(", or a time from 00:00 to ") + ClockText(static_cast<int>(key.most));
    if (!number) number = ClockMinute(text);
  }
  if (key.value == LimitsValue::Time) {
    orElse = QStringLiteral(", or a local date and time such as 2026-12-24T07:00");
    if (!number) number = SecondsUntil(text);
  }
  const bool fits = number && TakesNumber(key, static_cast<double>(*number));
  return fits ? ParsedValue{*number, {}} : Refuse(key, text, orElse);
}

ParsedValue ParseCap(const QString& text) {
  if (text.toLower() == QLatin1String("none")) return {QJsonValue::Null, {}};
  const auto minutes = WholeUpTo(text, kRollOverCap.most);
  return minutes ? ParsedValue{*minutes, {}}
                 : Refuse(kRollOverCap, text, QStringLiteral(" of minutes, or none"));
}

}  // namespace

ParsedValue ParseCredit(const QString& text) {
  return ParseLimitsValue(QStringLiteral("Credit"), text);
}

ParsedValue ParseLimitsValue(const QString& key, const QString& text) {
  if (const LimitsKey* known = FindLimitsKey(key)) {
    return known->value == LimitsValue::Flag ? ParseFlag(*known, text) : ParseNumber(*known, text);
  }
  if (key == QLatin1String(kRollOver.name)) return ParseFlag(kRollOver, text);
  if (key == QLatin1String(kRollOverCap.name)) return ParseCap(text);
  return {QJsonValue(QJsonValue::Undefined),
          QStringLiteral("there is no key \"%1\"; the keys are: %2")
              .arg(key, LimitsKeys().join(QStringLiteral(", ")))};
}

QJsonValue FirstLimitsValue(const QString& key) {
  if (key == QLatin1String(kRollOver.name)) return false;
  if (key == QLatin1String(kRollOverCap.name)) return QJsonValue::Null;
  const LimitsKey* known = FindLimitsKey(key);
  if (!known || known->value == LimitsValue::Credit) return QJsonValue::Undefined;
  if (key == QLatin1String("Enabled")) return true;
  LimitsRecord record;
  const QVariantMap nothing;
  ParseLimitsDictionary(&nothing, &record);
  return QJsonValue::fromVariant(MakeLimitsDictionary(record).value(key));
}

QStringList LimitsKeys() {
  QStringList names;
  for (const LimitsKey& key : AllLimitsKeys()) {
    names.append(QLatin1String(key.name));
  }
  return names + LimitsOptions();
}

QStringList LimitsOptions() {
  return {QLatin1String(kRollOver.name), QLatin1String(kRollOverCap.name)};
}

QString OptionField(const QString& key) {
  if (key == QLatin1String(kRollOver.name)) return QStringLiteral("rollOver");
  if (key == QLatin1String(kRollOverCap.name)) return QStringLiteral("rollOverCap");
  return {};
}

QString ClockText(int minuteOfDay) {
  return QStringLiteral("%1:%2")
      .arg(minuteOfDay / 60, 2, 10, QLatin1Char('0'))
      .arg(minuteOfDay % 60, 2, 10, QLatin1Char('0'));
}

}  // namespace vardell::control
