#include "server/ScheduleJson.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QStringList>
#include <functional>

#include "Common Sources/Caps.h"
#include "server/LimitsKeys.h"

namespace vardell::server {
namespace {

constexpr int kMinutesOfDay = 1440;

const char* const kDayNames[] = {"monday", "tuesday",  "wednesday", "thursday",
                                 "friday", "saturday", "sunday"};

using Problem = std::optional<ScheduleProblem>;

Problem Wrong(const QString& field, const QString& message) {
  return ScheduleProblem{field, message};
}

QString Below(const QString& path, const QString& name) {
  return path.isEmpty() ? name : path + QLatin1Char('.') + name;
}

QString Item(const QString& path, qsizetype index) {
  return QStringLiteral("%1[%2]").arg(path).arg(index);
}

Problem CheckFields(const QString& path, const QJsonObject& object, const QStringList& required,
                    const QStringList& optional = {}) {
  for (const QString& name : object.keys()) {
    if (!required.contains(name) && !optional.contains(name)) {
      return Wrong(Below(path, name), QStringLiteral("is not a field that is known here"));
    }
  }
  for (const QString& name : required) {
    if (!object.contains(name)) return Wrong(Below(path, name), QStringLiteral("is missing"));
  }
  return std::nullopt;
}

Problem ReadObject(const QString& path, const QJsonValue& value, QJsonObject* object) {
  if (!value.isObject()) return Wrong(path, QStringLiteral("must be an object"));
  *object = value.toObject();
  return std::nullopt;
}

using ReadItem = std::function<Problem(const QString& path, const QJsonObject& item)>;

Problem ReadList(const QString& path, const QJsonValue& value, std::size_t most,
                 const ReadItem& read) {
  if (!value.isArray()) return Wrong(path, QStringLiteral("must be a list"));
  const QJsonArray items = value.toArray();
  if (static_cast<std::size_t>(items.size()) > most) {
    return Wrong(path, QStringLiteral("must not have more than %1 entries").arg(most));
  }
  for (qsizetype index = 0; index < items.size(); ++index) {
    QJsonObject item;
    const QString itemPath = Item(path, index);
    if (Problem problem = ReadObject(itemPath, items[index], &item)) return problem;
    if (Problem problem = read(itemPath, item)) return problem;
  }
  return std::nullopt;
}

Problem ReadTime(const QString& path, const QJsonValue& value, int most, int* minutes) {
  static const QRegularExpression kForm(QStringLiteral("\\A([0-9]{2}):([0-5][0-9])\\z"));
  const QRegularExpressionMatch match = kForm.match(value.toString());
  const int read = match.captured(1).toInt() * 60 + match.captured(2).toInt();
  if (!match.hasMatch() || read > most) {
    return Wrong(
        path, QStringLiteral("must be a time of the day from \"00:00\" to \"%1\"")
                  .arg(most == kMinutesOfDay ? QStringLiteral("24:00") : QStringLiteral("23:59")));
  }
  *minutes = read;
  return std::nullopt;
}

Problem ReadWindow(const QString& path, const QJsonObject& object, DayWindows* windows) {
  const QString start = QStringLiteral("start");
  const QString stop = QStringLiteral("stop");
  ScheduleWindow window;
  if (Problem problem = CheckFields(path, object, {start, stop})) return problem;
  if (Problem problem =
          ReadTime(Below(path, start), object.value(start), kMinutesOfDay - 1, &window.start)) {
    return problem;
  }
  if (Problem problem =
          ReadTime(Below(path, stop), object.value(stop), kMinutesOfDay, &window.stop)) {
    return problem;
  }
  if (window.start == window.stop) {
    return Wrong(Below(path, stop),
                 QStringLiteral("must not be the start (a whole day is \"00:00\" to \"24:00\")"));
  }
  if (window.stop < window.start) window.stop += kMinutesOfDay;
  if (!windows->empty() && window.start < windows->back().stop) {
    return Wrong(Below(path, start), QStringLiteral("must not be before the end of the window "
                                                    "ahead of it"));
  }
  windows->push_back(window);
  return std::nullopt;
}

Problem ReadWindows(const QString& path, const QJsonValue& value, DayWindows* windows) {
  return ReadList(path, value, kMaxScheduleWindows,
                  [&](const QString& itemPath, const QJsonObject& item) {
                    return ReadWindow(itemPath, item, windows);
                  });
}

Problem ReadDays(const QString& path, const QJsonValue& value, Schedule* schedule) {
  QJsonObject object;
  if (Problem problem = ReadObject(path, value, &object)) return problem;
  QStringList names;
  for (const char* name : kDayNames) names.append(QLatin1String(name));
  if (Problem problem = CheckFields(path, object, names)) return problem;
  for (qsizetype day = 0; day < names.size(); ++day) {
    DayWindows* windows = &schedule->days[static_cast<std::size_t>(day)];
    if (Problem problem = ReadWindows(Below(path, names[day]), object.value(names[day]), windows)) {
      return problem;
    }
  }
  return std::nullopt;
}

Problem ReadDate(const QString& path, const QJsonValue& value, QDate* date) {
  static const QRegularExpression kForm(QStringLiteral("\\A[0-9]{4}-[0-9]{2}-[0-9]{2}\\z"));
  const QString text = value.toString();
  const QDate read = QDate::fromString(text, Qt::ISODate);
  if (!kForm.match(text).hasMatch() || !read.isValid()) {
    return Wrong(path, QStringLiteral("must be a date such as \"2024-12-24\""));
  }
  *date = read;
  return std::nullopt;
}

Problem ReadHoliday(const QString& path, const QJsonObject& object,
                    std::vector<Holiday>* holidays) {
  const QString name = QStringLiteral("name");
  const QString first = QStringLiteral("first");
  const QString last = QStringLiteral("last");
  const QString windows = QStringLiteral("windows");
  if (Problem problem = CheckFields(path, object, {name, first, windows}, {last})) return problem;
  Holiday holiday;
  if (!object.value(name).isString()) {
    return Wrong(Below(path, name), QStringLiteral("must be a text"));
  }
  holiday.name = object.value(name).toString();
  if (const auto problem = NameProblem(holiday.name)) return Wrong(Below(path, name), *problem);
  if (Problem problem = ReadDate(Below(path, first), object.value(first), &holiday.first)) {
    return problem;
  }
  holiday.last = holiday.first;
  if (object.contains(last)) {
    if (Problem problem = ReadDate(Below(path, last), object.value(last), &holiday.last)) {
      return problem;
    }
  }
  if (holiday.last < holiday.first) {
    return Wrong(Below(path, last), QStringLiteral("must not be before the first day"));
  }
  if (Problem problem =
          ReadWindows(Below(path, windows), object.value(windows), &holiday.windows)) {
    return problem;
  }
  holidays->push_back(holiday);
  return std::nullopt;
}

QString TimeText(int minutes) {
  const int ofDay = minutes > kMinutesOfDay ? minutes - kMinutesOfDay : minutes;
  return QStringLiteral("%1:%2")
      .arg(ofDay / 60, 2, 10, QLatin1Char('0'))
      .arg(ofDay % 60, 2, 10, QLatin1Char('0'));
}

QJsonArray PrintWindows(const DayWindows& windows) {
  QJsonArray array;
  for (const ScheduleWindow& window : windows) {
    array.append(QJsonObject{{QStringLiteral("start"), TimeText(window.start)},
                             {QStringLiteral("stop"), TimeText(window.stop)}});
  }
  return array;
}

}  // namespace

std::optional<ScheduleProblem> ParseSchedule(const QJsonObject& object, Schedule* schedule) {
  const QString days = QStringLiteral("days");
  const QString holidays = QStringLiteral("holidays");
  Schedule read;
  if (Problem problem = CheckFields({}, object, {days}, {holidays})) return problem;
  if (Problem problem = ReadDays(days, object.value(days), &read)) return problem;
  if (object.contains(holidays)) {
    const ReadItem readItem = [&](const QString& path, const QJsonObject& item) {
      return ReadHoliday(path, item, &read.holidays);
    };
    const QJsonValue list = object.value(holidays);
    if (Problem problem = ReadList(holidays, list, kMaxScheduleHolidays, readItem)) return problem;
  }
  *schedule = std::move(read);
  return std::nullopt;
}

QJsonObject PrintSchedule(const Schedule& schedule) {
  QJsonObject days;
  for (std::size_t day = 0; day < schedule.days.size(); ++day) {
    days.insert(QLatin1String(kDayNames[day]), PrintWindows(schedule.days[day]));
  }
  QJsonArray holidays;
  for (const Holiday& holiday : schedule.holidays) {
    holidays.append(QJsonObject{{QStringLiteral("name"), holiday.name},
                                {QStringLiteral("first"), holiday.first.toString(Qt::ISODate)},
                                {QStringLiteral("last"), holiday.last.toString(Qt::ISODate)},
                                {QStringLiteral("windows"), PrintWindows(holiday.windows)}});
  }
  return {{QStringLiteral("days"), days}, {QStringLiteral("holidays"), holidays}};
}

}  // namespace vardell::server
