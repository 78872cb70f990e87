#include "limits/LimitsDictionary.h"

#include <gtest/gtest.h>

#include <limits>
#include <tuple>

#include "Common Sources/PropertyList.h"
#include "link/VardellLoader.h"
#include "tests/support/FakeServiceDiscovery.h"
#include "tests/support/ScriptedPeer.h"

namespace vardell {

using namespace Qt::StringLiterals;

static void PrintTo(const LimitsRecord& record, std::ostream* out) {
  QString text;
  QDebug(&text) << MakeLimitsDictionary(record);
  *out << text.toStdString();
}

namespace {

LimitsRecord Defaults() {
  return {.topUpCoefficient = 1, .weekDayStop = 1439, .weekEndStop = 1439};
}

LimitsRecord Full() {
  return {.nextTopUpTime = 7.5e8,
          .credit = 12,
          .reportCredit = 1,
          .enabled = 1,
          .topUpCoefficient = 60,
          .topUpValue = 3,
          .weekEndCoefficient = 59,
          .weekEndValue = 4,
          .weekDayCurfewEnabled = 1,
          .weekEndCurfewEnabled = 1,
          .weekDayStart = 480,
          .weekDayStop = 1200,
          .weekEndStart = 540,
          .weekEndStop = 1260,
          .diskQuotaEnabled = 1,
          .diskQuotaValue = 2048};
}

LimitsRecord Parse(const QVariantMap& dictionary) {
  LimitsRecord record = Full();
  ParseLimitsDictionary(&dictionary, &record);
  return record;
}

TEST(LimitsDictionary, ReadsItsSixteenKeys) {
  const QVariantMap dictionary{
      {u"NextAutoUpdate"_s, 7.5e8},
      {u"Credit"_s, qlonglong(12)},
      {u"Report Credit"_s, true},
      {u"Enabled"_s, true},
      {u"AutoUpdateCoeff"_s, qlonglong(60)},
      {u"AutoUpdateValue"_s, qlonglong(3)},
      {u"WE Coeff"_s, qlonglong(59)},
      {u"WE Value"_s, qlonglong(4)},
      {u"WD start"_s, qlonglong(480)},
      {u"WD stop"_s, qlonglong(1200)},
      {u"WE start"_s, qlonglong(540)},
      {u"WE stop"_s, qlonglong(1260)},
      {u"WD Curfew Enabled"_s, true},
      {u"WE Curfew Enabled"_s, true},
      {u"DQ Enabled"_s, true},
      {u"DQ Value"_s, qlonglong(2048)},
  };
  EXPECT_EQ(Parse(dictionary), Full());
  EXPECT_EQ(MakeLimitsDictionary(Full()), dictionary);
  EXPECT_EQ(Parse({}), Defaults());

  LimitsRecord record = Full();
  ParseLimitsDictionary(nullptr, &record);
  EXPECT_EQ(record, Full());
  record.enabled = 0xFF;  // a flag from outside
  EXPECT_EQ(MakeLimitsDictionary(record)[u"Enabled"_s], QVariant(true));
}

TEST(LimitsDictionary, ConvertsValues) {
  const struct {
    const char* behaviour;
    const char* key;
    QVariant value;
    qlonglong expected;
  } kRows[] = {
      {"a real credit loses its fraction", "Credit", 12.9, 12},
      {"a negative credit stays", "Credit", qlonglong(-1), -1},
      {"a credit that is text counts as absent", "Credit", u"12"_s, 0},
      {"a huge real is cut", "Credit", 1e300, std::numeric_limits<std::int32_t>::max()},
      {"coefficient 59 becomes 1", "AutoUpdateCoeff", qlonglong(59), 1},
      {"coefficient 0 becomes 1", "AutoUpdateCoeff", qlonglong(0), 1},
      {"coefficient -60 becomes 1", "AutoUpdateCoeff", qlonglong(-60), 1},
      {"a coefficient of 60.9 is 60", "AutoUpdateCoeff", 60.9, 60},
      {"a stop of 0 is no absent one", "WD stop", qlonglong(0), 0},
      {"a stop of the wrong type is", "WE stop", true, 1439},
      {"a flag that is a number counts as absent", "Enabled", qlonglong(1), 0},
  };
  for (const auto& row : kRows) {
    const QString key = QLatin1String(row.key);
    EXPECT_EQ(MakeLimitsDictionary(Parse({{key, row.value}}))[key].toLongLong(), row.expected)
        << row.behaviour;
  }
}

// ---- Asking the Server ----

LimitsRecord FetchFrom(const QString& address) {
  FakeServiceDiscovery discovery;
  discovery.daemonRuns = false;
  ServerLink link(discovery);
  link.second = std::chrono::milliseconds(100);
  link.pinnedServer = [&address] { return std::optional(address); };
  return FetchLimits(link, u"anna"_s, u"org.game"_s);
}

TEST(FetchLimits, AnythingButADictionaryMeansNoLimits) {
  const std::tuple<const char*, test::ScriptedPeer::Script, LimitsRecord> kRows[] = {
      {"limits", test::AnswerWith(WritePropertyListXml(MakeLimitsDictionary(Full())).value()),
       Full()},
      {"a list", test::AnswerWith(WritePropertyListXml(QVariantList{true}).value()), Defaults()},
      {"no property list", test::AnswerWith("hello"), Defaults()},
      {"silence", test::StaySilent, Defaults()},
  };
  for (const auto& [behaviour, script, limits] : kRows) {
    test::ScriptedPeer peer({script});
    EXPECT_EQ(FetchFrom(u"127.0.0.1:%1"_s.arg(peer.Port())), limits) << behaviour;
  }
  EXPECT_EQ(FetchFrom(QString()), Defaults()) << "no Server";
}

}  // namespace
}  // namespace vardell
