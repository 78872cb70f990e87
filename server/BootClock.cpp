#include "server/BootClock.h"

#include <sys/timex.h>
#include <time.h>

#include <QFile>

#include "Common Sources/TestHooks.h"

namespace vardell::server {

std::chrono::milliseconds TimeSinceBoot() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::duration_cast<std::chrono::milliseconds>(
                                                std::chrono::nanoseconds(now.tv_nsec));
}

QString BootId() {
  QFile file(QStringLiteral("/proc/sys/kernel/random/boot_id"));
  if (!file.open(QIODevice::ReadOnly)) return {};
  return QString::fromLatin1(file.readAll().trimmed());
}

bool IsClockSet() {
  timex facts{};  // changes nothing
  const bool isKept = adjtimex(&facts) >= 0 && (facts.status & STA_UNSYNC) == 0;
  return isKept || QFile::exists(ProductPath(QStringLiteral("/run/systemd/timesync/synchronized")));
}

// Where the machine's zone is a file of its own, Qt's name for it is another zone's.
QTimeZone SystemZone() {
  const QDateTime now = QDateTime::currentDateTime();
  const QTimeZone named = QTimeZone::systemTimeZone();
  const bool fits = named.isValid() && named.offsetFromUtc(now) == now.offsetFromUtc();
  return fits ? named : QTimeZone(now.offsetFromUtc());
}

QDateTime WallClock::Now() {
  const std::int64_t now = QDateTime::currentMSecsSinceEpoch();
  if (now / 1000 != second_) {
    second_ = now / 1000;
    offset_ = QDateTime::currentDateTime().offsetFromUtc();
  }
  return QDateTime::fromMSecsSinceEpoch(now, Qt::OffsetFromUTC, offset_);
}

}  // namespace vardell::server
