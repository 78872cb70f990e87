#include "link/MessageEncoding.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <tuple>

#include "Common Sources/Caps.h"
#include "tests/link/LinkFixture.h"

namespace vardell {
namespace {

using test::Hex;
using namespace Qt::StringLiterals;

constexpr qsizetype kFarthest = std::numeric_limits<qsizetype>::max();
const QString kLoneSurrogate = u"ab"_s + QChar(0xD800) + u"cd"_s;

// Each field has bytes of its own.
LimitsRecord SampleRecord() {
  return {.nextTopUpTime = 1.5e9,
          .credit = -1,
          .reportCredit = 0x11,
          .enabled = 0x12,
          .topUpCoefficient = 60,
          .topUpValue = 0x01020304,
          .weekEndCoefficient = -2,
          .weekEndValue = 0x05060708,
          .weekDayCurfewEnabled = 0x13,
          .weekEndCurfewEnabled = 0x14,
          .weekDayStart = 0x21,
          .weekDayStop = 0x22,
          .weekEndStart = 0x23,
          .weekEndStop = 1439,
          .diskQuotaEnabled = 0x15,
          .diskQuotaValue = 0x31323334};
}

const QByteArray kBobAndX = Hex("03000000626f62 0100000078");
const QByteArray kSamplePacked =
    Hex("002f6859 04030201 ffffffff 3c 13 14 21000000 22000000 23000000 9f050000"
        "12 11 fe 08070605 15 34333231");

bool SameBytes(const LimitsRecord& a, const LimitsRecord& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST(DataForm, StringsAppendAsLengthAndUtf8) {
  const std::tuple<const char*, QString, QByteArray> rows[] = {
      {"an empty string is its length alone", QString(), Hex("00000000")},
      {"no terminating zero, little-endian length", u"ann"_s, Hex("03000000616e6e")},
      {"no byte-order mark", u"é"_s, Hex("02000000c3a9")},
      {"a pair of surrogates is one character", u"😀"_s, Hex("04000000f09f9880")},
      {"a zero character is kept", QString(QChar(0)), Hex("0100000000")},
      {"a lone surrogate appends nothing, not even a length", kLoneSurrogate, QByteArray()},
  };
  for (const auto& [behaviour, string, appended] : rows) {
    QByteArray data = Hex("aabb");
    qsizetype start = -1;
    AppendStringToData(data, string, &start);
    EXPECT_EQ(data, Hex("aabb") + appended) << behaviour;
    EXPECT_EQ(start, 2) << behaviour;
    if (appended.isEmpty()) continue;
    qsizetype next = -1;
    EXPECT_EQ(CopyStringFromData(data, 2, &next), string) << behaviour;
    EXPECT_EQ(next, data.size()) << behaviour;
  }
}

TEST(DataForm, BadStringsAreAbsentAndNothingOutsideIsRead) {
  constexpr qsizetype kUntouched = -1;
  const std::tuple<const char*, QByteArray, qsizetype, qsizetype> rows[] = {
      {"data shorter than the offset", Hex("0000"), 3, kUntouched},
      {"an offset below zero", Hex("00000000"), -1, kUntouched},
      {"an offset at the greatest value", Hex("00000000"), kFarthest, kUntouched},
      {"a length that is cut off", Hex("010000"), 0, kUntouched},
      {"a text that is cut off", Hex("05000000616263"), 0, 9},
      {"a length of 4 GiB less one", Hex("ffffffff61"), 0, 4 + 0xffffffffLL},
      {"bytes that are no UTF-8", Hex("02000000c328"), 0, 6},
      {"UTF-8 that ends within a character", Hex("01000000c3"), 0, 5},
      {"a surrogate in UTF-8", Hex("03000000eda080"), 0, 7},
  };
  for (const auto& [behaviour, data, offset, expected] : rows) {
    qsizetype next = kUntouched;
    EXPECT_EQ(CopyStringFromData(data, offset, &next), std::nullopt) << behaviour;
    EXPECT_EQ(next, expected) << behaviour;
  }
}

TEST(DataForm, TheRecordIsPackedInTheWiresOrder) {
  const QByteArray data = AppendLimitsRecordToData(u"bob"_s, u"x"_s, SampleRecord());
  EXPECT_EQ(data, kBobAndX + kSamplePacked);
  EXPECT_EQ(kSamplePacked.size(), kPackedRecordBytes);
  EXPECT_TRUE(SameBytes(ReadLimitsRecordFromData(data, kBobAndX.size()), SampleRecord()));

  LimitsRecord cut = SampleRecord();
  cut.diskQuotaValue = 0x3334;
  EXPECT_TRUE(SameBytes(ReadLimitsRecordFromData(kSamplePacked.chopped(2), 0), cut));
  for (const qsizetype offset : {qsizetype(43), qsizetype(44), qsizetype(-1), kFarthest})
    EXPECT_TRUE(SameBytes(ReadLimitsRecordFromData(kSamplePacked, offset), LimitsRecord()));
}

TEST(DataForm, TopUpTimesTravelAs32UnsignedBits) {
  const std::pair<double, std::uint32_t> rows[] = {
      {1.5e9 + 0.9, 1500000000u},
      {-1.0, 0xffffffffu},
      {-0.9, 0u},
      {4294967296.0 + 7, 7u},
      {1e300, 0u},
      {-1e300, 0u},
      {std::numeric_limits<double>::quiet_NaN(), 0u},
  };
  for (const auto& [time, wire] : rows) {
    LimitsRecord record;
    record.nextTopUpTime = time;
    const QByteArray data = AppendLimitsRecordToData({}, {}, record);
    EXPECT_EQ(ReadLimitsRecordFromData(data, 8).nextTopUpTime, double(wire)) << time;
  }
}

TEST(BufferForm, WritingStopsAtWhatCannotBeWritten) {
  const std::tuple<const char*, std::size_t, QString, QByteArray> rows[] = {
      {"all of it", 7, u"né"_s, Hex("030000006ec3a9")},
      {"what stands before a lone surrogate", 16, kLoneSurrogate, Hex("020000006162")},
      {"a character is not cut in two", 7, u"aéé"_s, Hex("0300000061c3a9")},
      {"no room for the character", 5, u"é"_s, Hex("00000000")},
      {"no room for the length", 3, u"a"_s, QByteArray()},
  };
  for (const auto& [behaviour, room, string, written] : rows) {
    QByteArray buffer(qsizetype(room) + 1, '\x7e');
    qsizetype position = 1;
    EXPECT_EQ(WriteStringToBuffer({buffer.data(), room + 1}, string, position), written.size() + 1)
        << behaviour;
    EXPECT_EQ(position, written.size() + 1) << behaviour;
    EXPECT_EQ(buffer, ("\x7e" + written).leftJustified(buffer.size(), '\x7e')) << behaviour;
  }
}

TEST(BufferForm, LengthsAreBounded) {
  const std::tuple<const char*, QByteArray, std::optional<QString>, qsizetype> rows[] = {
      {"1024 bytes are read", Hex("00040000") + QByteArray(1024, 'a'), QString(1024, u'a'), 1028},
      {"1025 bytes are refused", Hex("01040000") + QByteArray(1025, 'a'), {}, 4},
      {"a length below zero is refused", Hex("ffffffff61"), {}, 4},
      {"a text that is cut off is passed over", Hex("0300000061"), {}, 7},
      {"bytes that are no UTF-8 are passed over", Hex("01000000ff"), {}, 5},
      {"a length that is cut off stays", Hex("000000"), {}, 0},
  };
  for (const auto& [behaviour, buffer, text, end] : rows) {
    qsizetype position = 0;
    EXPECT_EQ(ReadStringFromBuffer(buffer, position), text) << behaviour;
    EXPECT_EQ(position, end) << behaviour;
  }
  qsizetype outside = 9;
  EXPECT_EQ(ReadStringFromBuffer(Hex("00000000"), outside), std::nullopt);
  EXPECT_EQ(outside, 9);
}

TEST(BufferForm, TheImageIsTheRecordAsItStands) {
  const LimitsRecord sample = SampleRecord();
  const QByteArray buffer =
      kBobAndX + QByteArray(reinterpret_cast<const char*>(&sample), sizeof sample);
  std::optional<QString> user, identifier;
  LimitsRecord record;
  const auto read = [&](const QByteArray& bytes) {
    EXPECT_EQ(ReadLimitsImageFromBuffer(bytes, &user, &identifier, &record), 0);
    return user.value_or(QString()) + identifier.value_or(QString());
  };
  EXPECT_EQ(read(buffer.chopped(1)), u"bobx"_s);
  EXPECT_TRUE(SameBytes(record, LimitsRecord()));
  EXPECT_EQ(read(buffer), u"bobx"_s);
  EXPECT_TRUE(SameBytes(record, sample));
  EXPECT_EQ(read(Hex("01040000")), QString());
}

// --- The Server's readers.

TEST(Payloads, HostileBytesGiveAnErrorAndTouchNothing) {
  const QByteArray good = kBobAndX + kSamplePacked;
  const std::tuple<const char*, QByteArray, PayloadError> rows[] = {
      {"no byte at all", QByteArray(), PayloadError::Truncated},
      {"one byte more", good + 'x', PayloadError::Surplus},
      {"a name of 4 GiB less one", Hex("ffffffff") + good, PayloadError::TooLong},
      {"a name of 1025 bytes", Hex("01040000") + QByteArray(1025, 'a') + good,
       PayloadError::TooLong},
      {"a name longer than the payload", Hex("00040000") + good, PayloadError::Truncated},
      {"a name that is no UTF-8", Hex("01000000ff") + good.mid(7), PayloadError::NotUtf8},
      {"a field that the sender could not encode", good.mid(7), PayloadError::TooLong},
  };
  QString user = u"kept"_s;
  QString identifier = user;
  LimitsRecord record;
  for (const auto& [behaviour, payload, error] : rows)
    EXPECT_EQ(ParseReportPayload(payload, &user, &identifier, &record), error) << behaviour;
  for (qsizetype length = 0; length < good.size(); ++length)
    EXPECT_NE(ParseReportPayload(good.first(length), &user, &identifier, &record),
              PayloadError::None);
  EXPECT_EQ(user + identifier, u"keptkept"_s);
  EXPECT_TRUE(SameBytes(record, LimitsRecord()));

  EXPECT_EQ(ParseReportPayload(good, &user, &identifier, &record), PayloadError::None);
  EXPECT_EQ(user + identifier, u"bobx"_s);
  EXPECT_TRUE(SameBytes(record, SampleRecord()));
  EXPECT_EQ(ParseNamesPayload(kBobAndX, &user, &identifier), PayloadError::None);
}

TEST(Payloads, OnlyAProcessIdentifierIsOne) {
  std::int32_t pid = 77;
  for (const char* text : {"", "0", "-1", "+1", " 1", "1 ", "1x", "0x1", "2147483648", "९"}) {
    QByteArray payload;
    AppendStringToData(payload, QString::fromUtf8(text));
    EXPECT_EQ(ParseKillPayload(payload, &pid), PayloadError::NotAPid) << text;
    EXPECT_EQ(pid, 77) << text;
  }
  EXPECT_EQ(ParseKillPayload(Hex("0300000031 3233"), &pid), PayloadError::None);
  EXPECT_EQ(pid, 123);
}

}  // namespace
}  // namespace vardell
