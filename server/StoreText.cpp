#include "server/StoreText.h"

#include <QJsonDocument>
#include <array>
#include <cstdlib>

#include "server/ScheduleJson.h"

namespace vardell::server {
namespace {

const QLatin1String kUnion("union");
const QLatin1String kSum("sum");
const QLatin1String kUser("user");
const QLatin1String kUserAtHost("user@host");

// By hand: each change has several of these, and printf takes longer than the rest of its row.
char* AddNumber(char* to, char before, int number, int digits) {
  *to = before;
  for (char* next = to + digits; next != to; --next, number /= 10) {
    *next = static_cast<char>('0' + number % 10);
  }
  return to + 1 + digits;
}

// Null for a year that has no four digits.
char* AddDate(char* to, QDate date) {
  int year = 0;
  int month = 0;
  int day = 0;
  date.getDate(&year, &month, &day);
  if (year < 1000 || year > 9999) return nullptr;
  to = AddNumber(to, static_cast<char>('0' + year / 1000), year % 1000, 3);
  to = AddNumber(to, '-', month, 2);
  return AddNumber(to, '-', day, 2);
}

}  // namespace

QString TimeText(const QDateTime& time) {
  const int offset = time.offsetFromUtc() / 60;
  const QTime ofDay = time.time();
  std::array<char, 32> text;
  char* end = AddDate(text.data(), time.date());
  if (!end) return time.toOffsetFromUtc(time.offsetFromUtc()).toString(Qt::ISODateWithMs);
  end = AddNumber(end, 'T', ofDay.hour(), 2);
  end = AddNumber(end, ':', ofDay.minute(), 2);
  end = AddNumber(end, ':', ofDay.second(), 2);
  end = AddNumber(end, '.', ofDay.msec(), 3);
  if (offset == 0) {
    *end++ = 'Z';
  } else {
    end = AddNumber(end, offset < 0 ? '-' : '+', std::abs(offset) / 60, 2);
    end = AddNumber(end, ':', std::abs(offset) % 60, 2);
  }
  return QString::fromLatin1(text.data(), end - text.data());
}

QString DayText(const LedgerRow& row) {
  const QDate day = row.day.isValid() ? row.day : row.time.date();
  std::array<char, 16> text;
  const char* end = AddDate(text.data(), day);
  return end ? QString::fromLatin1(text.data(), end - text.data()) : day.toString(Qt::ISODate);
}

QString ParallelText(Parallel parallel) {
  return parallel == Parallel::Union ? kUnion : kSum;
}

QString ScopeText(Scope scope) {
  return scope == Scope::UserAtHost ? kUserAtHost : kUser;
}

QString ScheduleText(const std::optional<Schedule>& schedule) {
  if (!schedule) return QStringLiteral("");
  return QString::fromUtf8(QJsonDocument(PrintSchedule(*schedule)).toJson(QJsonDocument::Compact));
}

bool ReadParallel(const QString& text, Parallel* parallel) {
  if (text != kUnion && text != kSum) return false;
  *parallel = text == kUnion ? Parallel::Union : Parallel::Sum;
  return true;
}

bool ReadScope(const QString& text, Scope* scope) {
  if (text != kUser && text != kUserAtHost) return false;
  *scope = text == kUserAtHost ? Scope::UserAtHost : Scope::User;
  return true;
}

bool ReadSchedule(const QString& text, std::optional<Schedule>* schedule) {
  if (text.isEmpty()) {
    schedule->reset();
    return true;
  }
  const QJsonDocument json = QJsonDocument::fromJson(text.toUtf8());
  Schedule read;
  if (!json.isObject() || ParseSchedule(json.object(), &read)) return false;
  *schedule = std::move(read);
  return true;
}

}  // namespace vardell::server
