#include "control/LimitsKeys.h"

#include <QDateTime>
#include <QTimeZone>
#include <limits>

#include "link/LimitsRecord.h"

namespace vardell::control {
namespace {

constexpr qint64 kMaxMinutes = std::numeric_limits<qint32>::max();
constexpr qint64 kMaxTopUpTime = std::numeric_limits<quint32>::max();

enum class Kind { Flag, Credit, Number, Minute, Coefficient, Time };

struct Key {
  const char* name;
  Kind kind;
  qint64 most;  // of a number or minute; of a coefficient whether 0 is one too
};

constexpr Key kKeys[] = {
    {"Enabled", Kind::Flag, 0},
    {"Credit", Kind::Credit, kMaxMinutes},
    {"Report Credit", Kind::Flag, 0},
    {"WD Curfew Enabled", Kind::Flag, 0},
    {"WD start", Kind::Minute, 1439},
    {"WD stop", Kind::Minute, 1440},
    {"WE Curfew Enabled", Kind::Flag, 0},
    {"WE start", Kind::Minute, 1439},
    {"WE stop", Kind::Minute, 1440},
    {"AutoUpdateValue", Kind::Number, kMaxMinutes},
    {"AutoUpdateCoeff", Kind::Coefficient, 0},
    {"WE Value", Kind::Number, kMaxMinutes},
    {"WE Coeff", Kind::Coefficient, 1},
    {"NextAutoUpdate", Kind::Time, kMaxTopUpTime},
    {"DQ Enabled", Kind::Flag, 0},
    {"DQ Value", Kind::Number, kMaxMinutes},
};

ParsedValue Refuse(const QString& key, const QString& text, const QString& allowed) {
  return {QJsonValue(QJsonValue::Undefined),
          QStringLiteral("\"%1\" cannot be \"%2\": it takes %3").arg(key, text, allowed)};
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

ParsedValue ParseFlag(const QString& key, const QString& text) {
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
  return Refuse(key, text, QStringLiteral("true or false"));
}

ParsedValue ParseNumber(const QString& key, const QString& text, qint64 most) {
  const auto number = WholeUpTo(text, most);
  return number ? ParsedValue{*number, {}}
                : Refuse(key, text, QStringLiteral("a whole number from 0 to %1").arg(most));
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

ParsedValue ParseMinute(const QString& key, const QString& text, qint64 most) {
  auto minute = WholeUpTo(text, most);
  if (!minute) {
    minute = ClockMinute(text);
  }
  if (!minute || *minute > most) {
    return Refuse(key, text,
                  QStringLiteral("a minute of the day from 0 to %1, or a time from 00:00 to %2")
                      .arg(most)
                      .arg(ClockText(static_cast<int>(most))));
  }
  return {*minute, {}};
}

ParsedValue ParseCoefficient(const QString& key, const QString& text, bool noneAllowed) {
  const auto number = Whole(text);
  if (number && (*number == 60 || *number == 1 || (noneAllowed && *number == 0))) {
    return {*number, {}};
  }
  return Refuse(key, text,
                noneAllowed ? QStringLiteral("60 (hours), 1 (minutes) or 0 (none)")
                            : QStringLiteral("60 (hours) or 1 (minutes)"));
}

ParsedValue ParseTime(const QString& key, const QString& text) {
  auto seconds = WholeUpTo(text, kMaxTopUpTime);
  if (!seconds && text.contains(QLatin1Char('T'))) {
    const QDateTime origin(QDate(2001, 1, 1), QTime(0, 0), QTimeZone::utc());
    const QDateTime time = QDateTime::fromString(text, Qt::ISODate);
    const qint64 after = time.isValid() ? origin.secsTo(time) : -1;
    seconds = after >= 0 && after <= kMaxTopUpTime ? std::optional(after) : std::nullopt;
  }
  return seconds ? ParsedValue{*seconds, {}}
                 : Refuse(key, text,
                          QStringLiteral("a local date and time such as 2026-12-24T07:00, or "
                                         "seconds since 2001 from 0 to %1 (0: no top-up)")
                              .arg(kMaxTopUpTime));
}

}  // namespace

ParsedValue ParseCredit(const QString& text) {
  const auto minutes = WholeUpTo(text, kMaxMinutes);
  return minutes && *minutes != kSpentCredit
             ? ParsedValue{*minutes, {}}
             : Refuse(QStringLiteral("Credit"), text,
                      QStringLiteral("whole minutes from 0 to %1, but not %2, which is reserved")
                          .arg(kMaxMinutes)
                          .arg(kSpentCredit));
}

ParsedValue ParseLimitsValue(const QString& key, const QString& text) {
  for (const Key& known : kKeys) {
    if (key != QLatin1String(known.name)) {
      continue;
    }
    switch (known.kind) {
      case Kind::Flag:
        return ParseFlag(key, text);
      case Kind::Credit:
        return ParseCredit(text);
      case Kind::Number:
        return ParseNumber(key, text, known.most);
      case Kind::Minute:
        return ParseMinute(key, text, known.most);
      case Kind::Coefficient:
        return ParseCoefficient(key, text, known.most == 1);
      case Kind::Time:
        return ParseTime(key, text);
    }
  }
  return {QJsonValue(QJsonValue::Undefined),
          QStringLiteral("there is no key \"%1\"; the keys are: %2")
              .arg(key, LimitsKeys().join(QStringLiteral(", ")))};
}

QStringList LimitsKeys() {
  QStringList names;
  for (const Key& key : kKeys) {
    names.append(QLatin1String(key.name));
  }
  return names;
}

QString ClockText(int minuteOfDay) {
  return QStringLiteral("%1:%2")
      .arg(minuteOfDay / 60, 2, 10, QLatin1Char('0'))
      .arg(minuteOfDay % 60, 2, 10, QLatin1Char('0'));
}

}  // namespace vardell::control
