#include "server/TopUpMemory.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>

#include "Common Sources/Caps.h"
#include "server/ControlReading.h"
#include "server/LocalTimes.h"

namespace vardell::server {
namespace {

const QLatin1String kLastDate("lastDate");
const QLatin1String kHad("had");
const QLatin1String kPlannedTime("plannedTime");
const QLatin1String kWallTime("wallTime");

std::optional<QDate> DateFrom(const QString& text) {
  const QDate date = QDate::fromString(text, Qt::ISODate);
  if (!date.isValid()) return std::nullopt;
  return date;
}

std::optional<DateRange> RangeFrom(const QString& text) {
  const QStringList ends = text.split(QLatin1Char('/'));
  const std::optional<QDate> first = DateFrom(ends.constFirst());
  const std::optional<QDate> last = DateFrom(ends.constLast());
  if (ends.size() != 2 || !first || !last || *first > *last) return std::nullopt;
  return DateRange{*first, *last};
}

bool ReadRanges(const QJsonArray& array, std::vector<DateRange>* ranges) {
  if (array.size() > static_cast<qsizetype>(kMaxTopUpDateRanges)) return false;
  for (const QJsonValue& value : array) {
    const std::optional<DateRange> range = RangeFrom(value.toString());
    if (!range) return false;
    ranges->push_back(*range);
  }
  return true;
}

}  // namespace

bool HadTopUp(const TopUpMemory& memory, QDate date) {
  return std::any_of(memory.had.begin(), memory.had.end(), [&](const DateRange& range) {
    return range.first <= date && date <= range.last;
  });
}

void RememberTopUp(TopUpMemory* memory, QDate date) {
  DateRange grown{date, date};
  std::erase_if(memory->had, [&](const DateRange& range) {
    if (range.last < grown.first.addDays(-1) || grown.last.addDays(1) < range.first) return false;
    grown = {std::min(grown.first, range.first), std::max(grown.last, range.last)};
    return true;
  });
  memory->had.push_back(grown);
  if (memory->had.size() > kMaxTopUpDateRanges) memory->had.erase(memory->had.begin());
}

QString PrintTopUpMemory(const TopUpMemory& memory) {
  QJsonArray had;
  for (const DateRange& range : memory.had) {
    had.append(QString(range.first.toString(Qt::ISODate) + QLatin1Char('/') +
                       range.last.toString(Qt::ISODate)));
  }
  QJsonObject object{{kHad, had}, {kPlannedTime, memory.plannedTime}, {kWallTime, memory.wallTime}};
  if (memory.lastDate) object.insert(kLastDate, memory.lastDate->toString(Qt::ISODate));
  return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

std::optional<TopUpMemory> ParseTopUpMemory(const QString& text) {
  const QJsonObject object = QJsonDocument::fromJson(text.toUtf8()).object();
  TopUpMemory memory;
  const std::optional<std::int64_t> wallTime = WholeNumber(object.value(kWallTime));
  if (!wallTime || *wallTime < 0 || *wallTime >= kMillisecondsOfDay) return std::nullopt;
  memory.wallTime = static_cast<int>(*wallTime);
  if (!object.value(kPlannedTime).isDouble() || !object.value(kHad).isArray()) return std::nullopt;
  memory.plannedTime = object.value(kPlannedTime).toDouble();
  if (object.contains(kLastDate)) {
    memory.lastDate = DateFrom(object.value(kLastDate).toString());
    if (!memory.lastDate) return std::nullopt;
  }
  if (!ReadRanges(object.value(kHad).toArray(), &memory.had)) return std::nullopt;
  return memory;
}

}  // namespace vardell::server
