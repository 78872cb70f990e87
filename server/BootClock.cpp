#include "server/BootClock.h"

#include <time.h>

#include <QFile>

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

}  // namespace vardell::server
