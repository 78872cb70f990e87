#include "control/LimitsKeys.h"

#include <QDateTime>
#include <QTimeZone>
#include <algorithm>
#include <optional>

#include "limits/LimitsDictionary.h"
#include "limits/LimitsKeys.h"

namespace vardell::control {
namespace {

enum class OptionForm { Flag, Cap, Word, Schedule };

struct OptionKey {
  const char* name;
  const char* field;
  OptionForm form;
  const char* words = "";  // that it may be, the first one at first
};

constexpr OptionKey kOptionKeys[] = {
    {"Roll Over", "rollOver", OptionForm::Flag},
    {"Roll Over Cap", "rollOverCap", OptionForm::Cap},
    {"Unlimited", "unlimited", OptionForm::Flag},
    {"Parallel", "parallel", OptionForm::Word, "sum|union"},
    {"Scope", "scope", OptionForm::Word, "user|user@host"},
    {"Schedule", "schedule", OptionForm::Schedule},
};

const OptionKey* FindOptionKey(const QString& name) {
  const auto found = std::ranges::find_if(
      kOptionKeys, [&](const OptionKey& key) { return name == QLatin1String(key.name); });
  return found == std::end(kOptionKeys) ? nullptr : found;
}

QStringList WordsOf(const OptionKey& key) {
  return QString::fromLatin1(key.words).split(QLatin1Char('|'), Qt::SkipEmptyParts);
}

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

ParsedValue ParseOption(const OptionKey& key, const QString& text) {
  const LimitsKey flag{key.name, LimitsValue::Flag};
  const LimitsKey cap{key.name, LimitsValue::Number, 2147483647};
  const auto minutes = WholeUpTo(text, cap.most);
  const QString word = text.toLower();
  switch (key.form) {
    case OptionForm::Flag:
      return ParseFlag(flag, text);
    case OptionForm::Cap:
      if (word == QLatin1String("none")) return {QJsonValue::Null, {}};
      return minutes ? ParsedValue{*minutes, {}}
                     : Refuse(cap, text, QStringLiteral(" of minutes, or none"));
    case OptionForm::Word:
      if (WordsOf(key).contains(word)) return {word, {}};
      return {QJsonValue(QJsonValue::Undefined),
              QStringLiteral("\"%1\" cannot be \"%2\": it takes %3")
                  .arg(QLatin1String(key.name), text, WordsOf(key).join(QStringLiteral(" or ")))};
    case OptionForm::Schedule:
      break;
  }
  return {QJsonValue(QJsonValue::Undefined),
          QStringLiteral("\"%1\" is changed by \"schedule set\" and \"schedule clear\"")
              .arg(QLatin1String(key.name))};
}

}  // namespace

ParsedValue ParseCredit(const QString& text) {
  return ParseLimitsValue(QStringLiteral("Credit"), text);
}

ParsedValue ParseLimitsValue(const QString& key, const QString& text) {
  if (const LimitsKey* known = FindLimitsKey(key)) {
    return known->value == LimitsValue::Flag ? ParseFlag(*known, text) : ParseNumber(*known, text);
  }
  if (const OptionKey* option = FindOptionKey(key)) return ParseOption(*option, text);
  return {QJsonValue(QJsonValue::Undefined),
          QStringLiteral("there is no key \"%1\"; the keys are: %2")
              .arg(key, LimitsKeys().join(QStringLiteral(", ")))};
}

QJsonValue FirstLimitsValue(const QString& key) {
  if (const OptionKey* option = FindOptionKey(key)) {
    if (option->form == OptionForm::Flag) return false;
    return option->form == OptionForm::Word ? WordsOf(*option)[0] : QJsonValue();
  }
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
  QStringList names;
  for (const OptionKey& key : kOptionKeys) names.append(QLatin1String(key.name));
  return names;
}

QString OptionField(const QString& key) {
  const OptionKey* option = FindOptionKey(key);
  return option ? QLatin1String(option->field) : QString();
}

QStringList WordsOfOption(const QString& key) {
  const OptionKey* option = FindOptionKey(key);
  if (!option) return {};
  if (option->form == OptionForm::Flag) return {QStringLiteral("true"), QStringLiteral("false")};
  return option->form == OptionForm::Cap ? QStringList{QStringLiteral("none")} : WordsOf(*option);
}

QString ClockText(int minuteOfDay) {
  return QStringLiteral("%1:%2")
      .arg(minuteOfDay / 60, 2, 10, QLatin1Char('0'))
      .arg(minuteOfDay % 60, 2, 10, QLatin1Char('0'));
}

}  // namespace vardell::control
