#include "control/LimitsNotices.h"

#include <pwd.h>

#include <QDate>
#include <QStringList>

#include "control/Answers.h"
#include "control/KnownApplications.h"
#include "control/Tables.h"
#include "limits/ApplicationsCatalogue.h"
#include "limits/WatchedApps.h"

namespace vardell::control {
namespace {

constexpr int kLastMinuteOfDay = 1439;

QString IdentifierOf(const QJsonObject& limit) {
  return limit[QStringLiteral("identifier")].toString();
}

QString UserOf(const QJsonObject& limit) {
  return limit[QStringLiteral("user")].toString();
}

QJsonValue KeyOf(const QJsonObject& limit, const QString& key) {
  return limit[QStringLiteral("limits")].toObject()[key];
}

bool IsSession(const QJsonObject& limit) {
  return IdentifierOf(limit) == QLatin1String(kLoginWindowIdentifier);
}

bool IsEnabled(const QJsonObject& limit) {
  return KeyOf(limit, QStringLiteral("Enabled")).toBool();
}

QJsonValue OptionOf(const QJsonObject& limit, const char* field) {
  return limit[QStringLiteral("options")].toObject()[QLatin1String(field)];
}

// The words of a command that name it.
QString WordsFor(const QJsonObject& limit) {
  return ShellWord(UserOf(limit)) + QLatin1Char(' ') +
         ShellWord(ShownIdentifier(IdentifierOf(limit)));
}

// Who is not known here may be on another machine; so may what is not installed here.
QString OfNoAccount(const QJsonObject& limit) {
  if (getpwnam(UserOf(limit).toUtf8().constData()) != nullptr) return {};
  return QStringLiteral("no account of this machine has the name \"%1\"")
      .arg(Printable(UserOf(limit)));
}

QString OfNoApplication(const QJsonObject& limit) {
  if (IsSession(limit) || IsHome(limit) ||
      CatalogueContainsIdentifier(KnownApplications(), IdentifierOf(limit))) {
    return {};
  }
  return QStringLiteral(
             "no application of this machine has the identifier \"%1\"; see vardellctl apps list")
      .arg(Printable(IdentifierOf(limit)));
}

// A new limit begins without credit, which is not what one expects of "may run until eight".
QString OfNoCredit(const QJsonObject& limit) {
  const bool isSpent = limit[QStringLiteral("credit")].toInteger() == 0;
  if (IsHome(limit) || !IsEnabled(limit) || !isSpent || OptionOf(limit, "unlimited").toBool()) {
    return {};
  }
  const QString asHours =
      OptionOf(limit, "schedule").isObject()
          ? QStringLiteral(", or let the hours alone count: vardellctl limits set %1 Unlimited=yes")
                .arg(WordsFor(limit))
          : QString();
  return QStringLiteral("%1 has no credit yet. Give some: vardellctl credit add %2 60%3")
      .arg(Subject(UserOf(limit), IdentifierOf(limit)), WordsFor(limit), asHours);
}

// The Server sends a schedule in place of these keys.
QString OfTwoHours(const QJsonObject& limit) {
  const bool hasHours = KeyOf(limit, QStringLiteral("WD Curfew Enabled")).toBool() ||
                        KeyOf(limit, QStringLiteral("WE Curfew Enabled")).toBool();
  if (!IsSession(limit) || !hasHours || !OptionOf(limit, "schedule").isObject()) return {};
  return QStringLiteral("%1 has a schedule, so \"WD start\", \"WE stop\" and so on do not count")
      .arg(Subject(UserOf(limit), IdentifierOf(limit)));
}

QString OfNoQuota(const QJsonObject& limit) {
  if (!IsHome(limit) || KeyOf(limit, QStringLiteral("DQ Enabled")).toBool()) return {};
  return QStringLiteral("%1 has a quota that does not hold yet: \"DQ Enabled=true\" does that")
      .arg(Subject(UserOf(limit), IdentifierOf(limit)));
}

struct Hours {
  bool hold = false;
  int start = 0;
  int stop = 0;
};

Hours HoursOf(const QJsonObject& limit, const QString& day) {
  return {KeyOf(limit, day + QStringLiteral(" Curfew Enabled")).toBool(),
          KeyOf(limit, day + QStringLiteral(" start")).toInt(),
          KeyOf(limit, day + QStringLiteral(" stop")).toInt(kLastMinuteOfDay)};
}

QString OfHours(const QJsonObject& before, const QJsonObject& after, const QString& day,
                const QString& days) {
  const Hours were = HoursOf(before, day);
  const Hours are = HoursOf(after, day);
  // Hours never go past midnight.
  if (are.hold && are.start >= are.stop) {
    return QStringLiteral(
               "%1 may not run at any time of a %2: \"%3 stop\" is not after \"%3 start\"")
        .arg(Subject(UserOf(after), IdentifierOf(after)), days, day);
  }
  const bool areNew = are.start != were.start || are.stop != were.stop;
  const bool allowAll = are.start == 0 && are.stop >= kLastMinuteOfDay;
  if (are.hold || !areNew || allowAll) return {};
  return QStringLiteral("the hours of a %1 do not hold yet: \"%2 Curfew Enabled=true\" does that")
      .arg(days, day);
}

}  // namespace

QString WhenItCounts(const QJsonObject& before, const QJsonObject& after) {
  const QString keys = QStringLiteral("limits");
  // Of the home folder agents ask when a session begins, of others once they watch them.
  const bool isAskedForAnew = IsHome(after) ? before[keys] == after[keys] : IsEnabled(before);
  if (isAskedForAnew || (!IsHome(after) && !IsEnabled(after))) return {};
  return IsSession(after) || IsHome(after)
             ? QStringLiteral(
                   "Agents learn of it at the next login: who is logged in now goes on without "
                   "it.\n")
             : QStringLiteral(
                   "Agents learn of it when the application is started next: one that is running "
                   "now goes on without it.\n");
}

QString TopUpNotice(const QJsonObject& limit) {
  if (!HasNoNextTopUp(limit)) return {};
  return QStringLiteral(
             "%1 gets no top-up before it is said when: vardellctl limits set %2 "
             "NextAutoUpdate=%3T06:00")
      .arg(Subject(UserOf(limit), IdentifierOf(limit)), WordsFor(limit),
           QDate::currentDate().addDays(1).toString(Qt::ISODate));
}

QString LimitNotices(const QJsonObject& before, const QJsonObject& after) {
  QStringList notices;
  if (before.isEmpty()) {
    notices = {OfNoAccount(after), OfNoApplication(after), OfNoCredit(after), OfNoQuota(after)};
  }
  notices.append(OfHours(before, after, QStringLiteral("WD"), QStringLiteral("week day")));
  notices.append(OfHours(before, after, QStringLiteral("WE"), QStringLiteral("week-end")));
  notices.append(OfTwoHours(after));
  notices.append(TopUpNotice(after));
  notices.removeAll(QString());
  return notices.join(QLatin1Char('\n'));
}

}  // namespace vardell::control
