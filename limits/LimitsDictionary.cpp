#include "limits/LimitsDictionary.h"

#include "Common Sources/PropertyList.h"
#include "link/Requests.h"

namespace vardell {

namespace {

constexpr std::int8_t kMinutesInAnHour = 60;
constexpr std::int32_t kLastMinuteOfTheDay = 1439;

class Keys {
 public:
  explicit Keys(const QVariantMap& source) : dictionary(source) {}

  std::uint8_t Flag(const char* key) const {
    return BooleanValue(Value(key)).value_or(false) ? 1 : 0;
  }
  std::int32_t Int32(const char* key, std::int32_t absent = 0) const {
    return NumberAsInt32(Value(key)).value_or(absent);
  }
  std::int8_t Int8(const char* key) const { return NumberAsInt8(Value(key)).value_or(0); }
  double Double(const char* key) const { return NumberAsDouble(Value(key)).value_or(0); }

 private:
  QVariant Value(const char* key) const { return dictionary.value(QLatin1String(key)); }

  const QVariantMap& dictionary;
};

}  // namespace

void ParseLimitsDictionary(const QVariantMap* dictionary, LimitsRecord* outRecord) {
  if (!dictionary || !outRecord) return;
  const Keys keys(*dictionary);
  LimitsRecord record;
  record.nextTopUpTime = keys.Double("NextAutoUpdate");
  record.credit = keys.Int32("Credit");
  record.reportCredit = keys.Flag("Report Credit");
  record.enabled = keys.Flag("Enabled");
  const std::int8_t coefficient = keys.Int8("AutoUpdateCoeff");
  record.topUpCoefficient = coefficient == kMinutesInAnHour ? coefficient : 1;
  record.topUpValue = keys.Int32("AutoUpdateValue");
  record.weekEndCoefficient = keys.Int8("WE Coeff");
  record.weekEndValue = keys.Int32("WE Value");
  record.weekDayStart = keys.Int32("WD start");
  record.weekDayStop = keys.Int32("WD stop", kLastMinuteOfTheDay);
  record.weekEndStart = keys.Int32("WE start");
  record.weekEndStop = keys.Int32("WE stop", kLastMinuteOfTheDay);
  record.weekDayCurfewEnabled = keys.Flag("WD Curfew Enabled");
  record.weekEndCurfewEnabled = keys.Flag("WE Curfew Enabled");
  record.diskQuotaEnabled = keys.Flag("DQ Enabled");
  record.diskQuotaValue = keys.Int32("DQ Value");
  *outRecord = record;
}

QVariantMap MakeLimitsDictionary(const LimitsRecord& record) {
  return {
      {QStringLiteral("NextAutoUpdate"), record.nextTopUpTime},
      {QStringLiteral("Credit"), qlonglong(record.credit)},
      {QStringLiteral("Report Credit"), record.reportCredit != 0},
      {QStringLiteral("Enabled"), record.enabled != 0},
      {QStringLiteral("AutoUpdateCoeff"), qlonglong(record.topUpCoefficient)},
      {QStringLiteral("AutoUpdateValue"), qlonglong(record.topUpValue)},
      {QStringLiteral("WE Coeff"), qlonglong(record.weekEndCoefficient)},
      {QStringLiteral("WE Value"), qlonglong(record.weekEndValue)},
      {QStringLiteral("WD start"), qlonglong(record.weekDayStart)},
      {QStringLiteral("WD stop"), qlonglong(record.weekDayStop)},
      {QStringLiteral("WE start"), qlonglong(record.weekEndStart)},
      {QStringLiteral("WE stop"), qlonglong(record.weekEndStop)},
      {QStringLiteral("WD Curfew Enabled"), record.weekDayCurfewEnabled != 0},
      {QStringLiteral("WE Curfew Enabled"), record.weekEndCurfewEnabled != 0},
      {QStringLiteral("DQ Enabled"), record.diskQuotaEnabled != 0},
      {QStringLiteral("DQ Value"), qlonglong(record.diskQuotaValue)},
  };
}

LimitsRecord FetchLimits(ServerLink& link, const QString& userName, const QString& appIdentifier) {
  const QVariant answer = CopyLimitsDictionary(link, userName, appIdentifier);
  const QVariantMap dictionary =
      answer.typeId() == QMetaType::QVariantMap ? answer.toMap() : QVariantMap();
  LimitsRecord record;
  ParseLimitsDictionary(&dictionary, &record);
  return record;
}

}  // namespace vardell
