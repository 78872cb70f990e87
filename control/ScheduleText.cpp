#include "control/ScheduleText.h"

#include <QDate>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <algorithm>
#include <array>
#include <bitset>
#include <optional>
#include <vector>

#include "Common Sources/Caps.h"
#include "control/LimitsKeys.h"
#include "control/TextTable.h"

namespace vardell::control {
namespace {

constexpr int kDays = 7;
constexpr int kMinutesOfDay = 1440;
constexpr char kAllDay[] = "all-day";
constexpr char kClosed[] = "closed";
constexpr char kHoliday[] = "holiday";

const std::array<QString, kDays> kDayNames = {
    QStringLiteral("monday"),   QStringLiteral("tuesday"), QStringLiteral("wednesday"),
    QStringLiteral("thursday"), QStringLiteral("friday"),  QStringLiteral("saturday"),
    QStringLiteral("sunday")};

using DaySet = std::bitset<kDays>;

// --- Reading. Every problem is a sentence for people.

struct Words {
  QStringList words;
  QString problem;
};

std::optional<std::size_t> DayNamed(const QString& word) {
  for (std::size_t day = 0; day < kDays; ++day) {
    if (word.size() >= 3 && kDayNames[day].startsWith(word)) return day;
  }
  return std::nullopt;
}

// Those from one to the other, over Sunday too.
DaySet Between(std::size_t first, std::size_t last) {
  DaySet days;
  for (std::size_t day = first;; day = (day + 1) % kDays) {
    days.set(day);
    if (day == last) return days;
  }
}

std::optional<DaySet> DaysOf(const QString& item) {
  if (item == QLatin1String("daily")) return Between(0, 6);
  if (item == QLatin1String("weekdays")) return Between(0, 4);
  if (item == QLatin1String("weekends")) return Between(5, 6);
  const auto first = DayNamed(item.section(QLatin1Char('-'), 0, 0));
  const auto last = DayNamed(item.section(QLatin1Char('-'), -1));
  const bool isRange = first && last && item.count(QLatin1Char('-')) <= 1;
  return isRange ? std::optional(Between(*first, *last)) : std::nullopt;
}

// None where a word is no list of days.
std::optional<DaySet> DaysInList(const QString& word) {
  DaySet all;
  for (const QString& item : word.toLower().split(QLatin1Char(','))) {
    const std::optional<DaySet> days = DaysOf(item);
    if (!days) return std::nullopt;
    all |= *days;
  }
  return all;
}

QString DaysText(DaySet days) {
  QStringList texts;
  for (std::size_t day = 0; day < kDays; ++day) {
    if (!days[day]) continue;
    const std::size_t first = day;
    while (day + 1 < kDays && days[day + 1]) ++day;
    texts.append(first == day ? kDayNames[day]
                              : kDayNames[first] + QLatin1Char('-') + kDayNames[day]);
  }
  return texts.join(QLatin1Char(','));
}

struct Window {
  int start = 0;
  int stop = 0;  // above the start; from 1440 on the next day's
  QString text;
};

struct ParsedWindow {
  Window window;
  QString problem;
};

ParsedWindow ParseWindow(const QString& word) {
  static const QRegularExpression kForm(
      QStringLiteral("\\A(\\d{1,2})(?::([0-5]\\d))?-(\\d{1,2})(?::([0-5]\\d))?\\z"));
  const QRegularExpressionMatch match = kForm.match(word);
  const auto number = [&](int group) { return match.captured(group).toInt(); };
  Window window{number(1) * 60 + number(2), number(3) * 60 + number(4), word};
  if (!match.hasMatch() || window.start >= kMinutesOfDay || window.stop > kMinutesOfDay) {
    return {{},
            QStringLiteral("\"%1\" is no time from one hour to another: write it like 15:00-20:00")
                .arg(word)};
  }
  if (window.start == window.stop) {
    return {{},
            QStringLiteral("\"%1\" is no time at all; a whole day is \"%2\"").arg(word, kAllDay)};
  }
  if (window.stop < window.start) window.stop += kMinutesOfDay;
  return {window, {}};
}

struct ParsedWindows {
  QJsonArray windows;
  QString problem;
};

QJsonObject WindowJson(int start, int stop) {
  const int ofDay = stop > kMinutesOfDay ? stop - kMinutesOfDay : stop;
  return {{QStringLiteral("start"), ClockText(start)}, {QStringLiteral("stop"), ClockText(ofDay)}};
}

// `whose`: what stands before the hours.
ParsedWindows ParseWindows(const QString& whose, const QStringList& words) {
  if (words.isEmpty()) {
    return {{},
            QStringLiteral("\"%1\" has no hours: write \"%1 15:00-20:00\", \"%1 %2\" or \"%1 %3\"")
                .arg(whose, kAllDay, kClosed)};
  }
  if (words.size() == 1 && words[0] == QLatin1String(kClosed)) return {};
  if (words.size() == 1 && words[0] == QLatin1String(kAllDay)) {
    return {{WindowJson(0, kMinutesOfDay)}, {}};
  }
  if (static_cast<std::size_t>(words.size()) > kMaxScheduleWindows) {
    return {{},
            QStringLiteral("\"%1\" has more than %2 times in a day")
                .arg(whose)
                .arg(kMaxScheduleWindows)};
  }
  std::vector<Window> windows;
  for (const QString& word : words) {
    const ParsedWindow parsed = ParseWindow(word);
    if (!parsed.problem.isEmpty()) return {{}, parsed.problem};
    windows.push_back(parsed.window);
  }
  std::ranges::sort(windows, {}, &Window::start);
  ParsedWindows all;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (i > 0 && windows[i].start < windows[i - 1].stop) {
      return {{},
              QStringLiteral("%1 and %2 of \"%3\" overlap: make one of them")
                  .arg(windows[i - 1].text, windows[i].text, whose)};
    }
    all.windows.append(WindowJson(windows[i].start, windows[i].stop));
  }
  return all;
}

struct ParsedHoliday {
  QJsonObject holiday;
  QString problem;
};

// A name between quotes, in which a backslash stands before a quote and a backslash.
std::optional<QString> TakeQuoted(QString* text) {
  static const QRegularExpression kForm(QStringLiteral("\\A\"((?:[^\"\\\\]|\\\\[\"\\\\])*)\"\\s+"));
  const QRegularExpressionMatch match = kForm.match(*text);
  if (!match.hasMatch()) return std::nullopt;
  static const QRegularExpression kEscaped(QStringLiteral("\\\\([\"\\\\])"));
  *text = text->mid(match.capturedLength());
  return match.captured(1).replace(kEscaped, QStringLiteral("\\1"));
}

const QRegularExpression& DatesForm() {
  static const QRegularExpression kForm(QStringLiteral(
      "(?:\\A|\\s)(\\d{4}-\\d\\d-\\d\\d)(?:\\.\\.(\\d{4}-\\d\\d-\\d\\d))?(?=\\s|\\z)"));
  return kForm;
}

// `text`: what follows "holiday".
ParsedHoliday ParseHoliday(QString text) {
  const auto wrong = [](const QString& problem) { return ParsedHoliday{{}, problem}; };
  const std::optional<QString> quoted = TakeQuoted(&text);
  const QRegularExpressionMatch dates = DatesForm().match(text);
  if (!dates.hasMatch()) {
    return wrong(QStringLiteral("\"holiday %1\" has no date: write \"holiday Summer "
                                "2027-07-01..2027-08-31 all-day\"")
                     .arg(text.simplified()));
  }
  const QString name = quoted ? *quoted : text.left(dates.capturedStart()).simplified();
  if (name.isEmpty()) {
    return wrong(QStringLiteral("a holiday needs a name: write \"holiday Summer %1 ...\"")
                     .arg(dates.captured().trimmed()));
  }
  const QString first = dates.captured(1);
  const QString last = dates.captured(2).isEmpty() ? first : dates.captured(2);
  for (const QString& date : {first, last}) {
    if (QDate::fromString(date, Qt::ISODate).isValid()) continue;
    return wrong(QStringLiteral("there is no day %1 in the calendar").arg(date));
  }
  if (last < first) return wrong(QStringLiteral("%1 is before %2").arg(last, first));
  const ParsedWindows hours = ParseWindows(
      QStringLiteral("holiday %1 %2").arg(name, dates.captured().trimmed()),
      text.mid(dates.capturedEnd()).simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts));
  if (!hours.problem.isEmpty()) return wrong(hours.problem);
  return {{{QStringLiteral("name"), name},
           {QStringLiteral("first"), first},
           {QStringLiteral("last"), last},
           {QStringLiteral("windows"), hours.windows}},
          {}};
}

// What is read of lines, one by one.
class Reader {
 public:
  // The problem, or empty.
  QString Take(const QString& line) {
    QStringList words = line.simplified().split(QLatin1Char(' '));
    const QString first = words.takeFirst();
    if (first.toLower() == QLatin1String(kHoliday)) {
      return TakeHoliday(line.trimmed().mid(first.size()).trimmed());
    }
    const std::optional<DaySet> days = DaysInList(first);
    if (!days) {
      return QStringLiteral(
                 "\"%1\" begins neither with days (\"monday\", \"monday-friday\", \"saturday,"
                 "sunday\", \"daily\") nor with \"holiday\"")
          .arg(line.simplified());
    }
    return TakeDays(*days, first, words);
  }

  ParsedSchedule Result() const {
    if (said_.none()) {
      return {{},
              QStringLiteral("nothing is said of the days of the week; \"daily all-day\" allows "
                             "them all"),
              {}};
    }
    QJsonObject days;
    for (std::size_t day = 0; day < kDays; ++day) days.insert(kDayNames[day], windows_[day]);
    const QString rest = DaysText(~said_);
    return {{{QStringLiteral("days"), days}, {QStringLiteral("holidays"), holidays_}},
            {},
            rest.isEmpty() ? QString()
                           : QStringLiteral("closed, since nothing was said of them: ") + rest};
  }

 private:
  QString TakeDays(DaySet days, const QString& whose, const QStringList& words) {
    if ((days & said_).any()) {
      return QStringLiteral(
                 "%1 is there twice: write all of its times in one line, like \"saturday "
                 "09:00-12:00 15:00-20:00\"")
          .arg(DaysText(days & said_));
    }
    const ParsedWindows hours = ParseWindows(whose, words);
    for (std::size_t day = 0; day < kDays; ++day) {
      if (days[day]) windows_[day] = hours.windows;
    }
    said_ |= days;
    return hours.problem;
  }

  QString TakeHoliday(const QString& text) {
    if (static_cast<std::size_t>(holidays_.size()) == kMaxScheduleHolidays) {
      return QStringLiteral("there are more than %1 holidays: take those out that are over")
          .arg(kMaxScheduleHolidays);
    }
    const ParsedHoliday parsed = ParseHoliday(text);
    holidays_.append(parsed.holiday);
    return parsed.problem;
  }

  DaySet said_;
  std::array<QJsonArray, kDays> windows_;
  QJsonArray holidays_;
};

ParsedSchedule ParseJson(const QByteArray& bytes) {
  QJsonParseError error;
  const QJsonObject whole = QJsonDocument::fromJson(bytes, &error).object();
  if (error.error != QJsonParseError::NoError) {
    return {{},
            QStringLiteral("this is not JSON: %1, at byte %2")
                .arg(error.errorString())
                .arg(error.offset),
            {}};
  }
  const QString inner = QStringLiteral("schedule");
  if (!whole.contains(inner)) return {whole, {}, {}};
  if (whole[inner].isObject()) return {whole[inner].toObject(), {}, {}};
  return {
      {}, QStringLiteral("there is no schedule in this; \"schedule clear\" takes one away"), {}};
}

// --- Showing.

QString WindowsText(const QJsonValue& value) {
  const QJsonArray windows = value.toArray();
  if (windows.isEmpty()) return QLatin1String(kClosed);
  QStringList texts;
  for (const QJsonValue& window : windows) {
    texts.append(QStringLiteral("%1-%2").arg(window[QStringLiteral("start")].toString(),
                                             window[QStringLiteral("stop")].toString()));
  }
  const QString text = texts.join(QLatin1Char(' '));
  return Printable(text == QLatin1String("00:00-24:00") ? QLatin1String(kAllDay) : text);
}

// The days of a week with the hours that they share, from the first of them on.
std::vector<QStringList> DayRows(const QJsonObject& schedule) {
  const QJsonObject days = schedule[QStringLiteral("days")].toObject();
  std::vector<QStringList> rows;
  for (std::size_t first = 0; first < kDays;) {
    const QJsonValue windows = days[kDayNames[first]];
    std::size_t last = first;
    while (last + 1 < kDays && days[kDayNames[last + 1]] == windows) ++last;
    const DaySet group = Between(first, last);
    rows.push_back({group.all() ? QStringLiteral("daily") : DaysText(group), WindowsText(windows)});
    first = last + 1;
  }
  return rows;
}

QString NameText(const QString& name) {
  const bool isPlain = name == name.simplified() && !name.startsWith(QLatin1Char('"')) &&
                       !DatesForm().match(name).hasMatch();
  if (isPlain) return name;
  QString inside = name;
  inside.replace(QLatin1Char('\\'), QStringLiteral("\\\\"))
      .replace(QLatin1Char('"'), QStringLiteral("\\\""));
  return QLatin1Char('"') + inside + QLatin1Char('"');
}

QStringList HolidayRow(const QJsonValue& holiday) {
  const QString first = holiday[QStringLiteral("first")].toString();
  const QString last = holiday[QStringLiteral("last")].toString();
  const QString name = NameText(holiday[QStringLiteral("name")].toString());
  const QString dates =
      first == last || last.isEmpty() ? first : first + QLatin1String("..") + last;
  return {Printable(QStringLiteral("holiday %1 %2").arg(name, dates)),
          WindowsText(holiday[QStringLiteral("windows")])};
}

}  // namespace

bool IsScheduleLine(const QString& word) {
  const QString first = word.simplified().section(QLatin1Char(' '), 0, 0).toLower();
  return first == QLatin1String(kHoliday) || DaysInList(first);
}

ParsedSchedule ParseScheduleLines(const QStringList& lines) {
  Reader reader;
  for (const QString& line : lines) {
    const QString trimmed = line.trimmed();
    if (trimmed.isEmpty() || trimmed.startsWith(QLatin1Char('#'))) continue;
    if (const QString problem = reader.Take(trimmed); !problem.isEmpty()) {
      return {{}, problem, {}};
    }
  }
  return reader.Result();
}

ParsedSchedule ParseScheduleFile(const QByteArray& bytes) {
  if (bytes.trimmed().startsWith('{')) return ParseJson(bytes);
  return ParseScheduleLines(QString::fromUtf8(bytes).split(QLatin1Char('\n')));
}

QString ScheduleTable(const QJsonObject& schedule) {
  std::vector<QStringList> rows{{QStringLiteral("# DAYS"), QStringLiteral("HOURS")}};
  for (const QStringList& row : DayRows(schedule)) rows.push_back(row);
  const QJsonArray holidays = schedule[QStringLiteral("holidays")].toArray();
  for (const QJsonValue& holiday : holidays) rows.push_back(HolidayRow(holiday));
  return AlignedTable(rows);
}

QString ScheduleSummary(const QJsonObject& schedule) {
  QStringList texts;
  for (const QStringList& row : DayRows(schedule)) texts.append(row.join(QLatin1Char(' ')));
  const qsizetype holidays = schedule[QStringLiteral("holidays")].toArray().size();
  if (holidays == 1) texts.append(QStringLiteral("1 holiday"));
  if (holidays > 1) texts.append(QStringLiteral("%1 holidays").arg(holidays));
  return texts.join(QStringLiteral(", "));
}

}  // namespace vardell::control
