#include <gtest/gtest.h>

#include <QTimeZone>

#include "server/BootClock.h"
#include "server/StoreText.h"
#include "tests/support/Waiting.h"

namespace vardell::server {
namespace {

TEST(TimesTest, TimesAndDaysAreTheTextsThatQtPrints) {
  for (const char* zone : {"UTC", "Europe/Madrid", "Asia/Kolkata", "America/St_Johns"}) {
    for (const qint64 instant : {0ll, -1ll, 1700000000123ll, 1719000000007ll, 253402300799999ll,
                                 999999999999999ll, -62135596800000ll}) {
      LedgerRow row;
      row.time = QDateTime::fromMSecsSinceEpoch(instant, QTimeZone(zone));
      const QDateTime fixed = row.time.toOffsetFromUtc(row.time.offsetFromUtc());
      EXPECT_EQ(TimeText(row.time), fixed.toString(Qt::ISODateWithMs)) << zone << instant;
      EXPECT_EQ(DayText(row), row.time.date().toString(Qt::ISODate)) << zone << instant;
    }
  }
}

TEST(TimesTest, TheWallClockFollowsTheMachinesZone) {
  const QByteArray before = qgetenv("TZ");
  WallClock clock;
  for (const int hours : {3, -5}) {
    qputenv("TZ", "XYZ" + QByteArray::number(-hours));
    EXPECT_TRUE(test::WaitUntil([&] { return clock.Now().offsetFromUtc() == hours * 3600; }));
    EXPECT_LT(std::abs(clock.Now().msecsTo(QDateTime::currentDateTime())), 60000);
  }
  before.isNull() ? qunsetenv("TZ") : qputenv("TZ", before);
}

}  // namespace
}  // namespace vardell::server
