#include "limits/LimitsDictionary.h"

#include <gtest/gtest.h>

#include <limits>

#include "Common Sources/PropertyList.h"
#include "link/VardellLoader.h"
#include "tests/support/FakeServiceDiscovery.h"
#include "tests/support/ScriptedPeer.h"

namespace vardell {

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
      {QStringLiteral("NextAutoUpdate"), 7.5e8},
      {QStringLiteral("Credit"), qlonglong(12)},
      {QStringLiteral("Report Credit"), true},
      {QStringLiteral("Enabled"), true},
      {QStringLiteral("AutoUpdateCoeff"), qlonglong(60)},
      {QStringLiteral("AutoUpdateValue"), qlonglong(3)},
      {QStringLiteral("WE Coeff"), qlonglong(59)},
      {QStringLiteral("WE Value"), qlonglong(4)},
      {QStringLiteral("WD start"), qlonglong(480)},
      {QStringLiteral("WD stop"), qlonglong(1200)},
      {QStringLiteral("WE start"), qlonglong(540)},
      {QStringLiteral("WE stop"), qlonglong(1260)},
      {QStringLiteral("WD Curfew Enabled"), true},
      {QStringLiteral("WE Curfew Enabled"), true},
      {QStringLiteral("DQ Enabled"), true},
      {QStringLiteral("DQ Value"), qlonglong(2048)},
  };
  EXPECT_EQ(Parse(dictionary), Full());
  EXPECT_EQ(MakeLimitsDictionary(Full()), dictionary);
  EXPECT_EQ(Parse({}), Defaults());

  LimitsRecord record = Full();
  ParseLimitsDictionary(nullptr, &record);
  EXPECT_EQ(record, Full());
  record.enabled = 0xFF;  // a flag from outside
  EXPECT_EQ(MakeLimitsDictionary(record)[QStringLiteral("Enabled")], QVariant(true));
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
      {"a credit that is text counts as absent", "Credit", QStringLiteral("12"), 0},
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
  return FetchLimits(link, QStringLiteral("anna"), QStringLiteral("org.game"));
}

TEST(FetchLimits, AnythingButADictionaryMeansNoLimits) {
  const struct {
    const char* behaviour;
    test::ScriptedPeer::Script script;
    LimitsRecord limits;
  } kRows[] = {
      {"limits", test::AnswerWith(WritePropertyListXml(MakeLimitsDictionary(Full())).value()),
       Full()},
      {"a list", test::AnswerWith(WritePropertyListXml(QVariantList{true}).value()), Defaults()},
      {"no property list", test::AnswerWith("hello"), Defaults()},
      {"silence", test::StaySilent, Defaults()},
  };
  for (const auto& row : kRows) {
    test::ScriptedPeer peer({row.script});
    EXPECT_EQ(FetchFrom(QStringLiteral("127.0.0.1:%1").arg(peer.Port())), row.limits)
        << row.behaviour;
  }
  EXPECT_EQ(FetchFrom(QString()), Defaults()) << "no Server";
}

}  // namespace
}  // namespace vardell
