#include "link/MessageEncoding.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <limits>
#include <string>

#include "Common Sources/Caps.h"

namespace vardell {
namespace {

QByteArray Hex(const char* text) {
  return QByteArray::fromHex(text);
}

const QString kLoneSurrogate = QStringLiteral("ab") + QChar(0xD800) + QStringLiteral("cd");

LimitsRecord SampleRecord() {
  LimitsRecord record;
  record.nextTopUpTime = 1.5e9;
  record.credit = -1;
  record.reportCredit = 0x11;
  record.enabled = 0x12;
  record.topUpCoefficient = 60;
  record.topUpValue = 0x01020304;
  record.weekEndCoefficient = -2;
  record.weekEndValue = 0x05060708;
  record.weekDayCurfewEnabled = 0x13;
  record.weekEndCurfewEnabled = 0x14;
  record.weekDayStart = 0x21;
  record.weekDayStop = 0x22;
  record.weekEndStart = 0x23;
  record.weekEndStop = 1439;
  record.diskQuotaEnabled = 0x15;
  record.diskQuotaValue = 0x31323334;
  return record;
}

const QByteArray kSamplePacked =
    Hex("002f6859"  // 1500000000
        "04030201"
        "ffffffff"
        "3c1314"
        "21000000"
        "22000000"
        "23000000"
        "9f050000"
        "1211"
        "fe"
        "08070605"
        "15"
        "34333231");

bool SameBytes(const LimitsRecord& a, const LimitsRecord& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST(DataForm, StringsAppendAsLengthAndUtf8) {
  struct Row {
    const char* behaviour;
    QString string;
    QByteArray appended;
  };
  const Row rows[] = {
      {"an empty string is its length alone", QString(), Hex("00000000")},
      {"no terminating zero, little-endian length", QStringLiteral("ann"), Hex("03000000616e6e")},
      {"no byte-order mark", QStringLiteral("é"), Hex("02000000c3a9")},
      {"a pair of surrogates is one character", QStringLiteral("😀"), Hex("04000000f09f9880")},
      {"a zero character is kept", QString(QChar(0)), Hex("0100000000")},
      {"a lone surrogate appends nothing, not even a length", kLoneSurrogate, QByteArray()},
  };
  for (const Row& row : rows) {
    QByteArray data = Hex("aabb");
    qsizetype start = -1;
    AppendStringToData(data, row.string, &start);
    EXPECT_EQ(data, Hex("aabb") + row.appended) << row.behaviour;
    EXPECT_EQ(start, 2) << row.behaviour;
    if (row.appended.isEmpty()) continue;
    qsizetype next = -1;
    EXPECT_EQ(CopyStringFromData(data, 2, &next), row.string) << row.behaviour;
    EXPECT_EQ(next, data.size()) << row.behaviour;
  }
}

TEST(DataForm, AFetchPayloadOfAThreeLetterUserHas26Bytes) {
  QByteArray payload;
  AppendStringToData(payload, QStringLiteral("bob"));
  AppendStringToData(payload, QStringLiteral("org.example.app"));
  EXPECT_EQ(payload, Hex("03000000626f62"
                         "0f0000006f72672e6578616d706c652e617070"));
}

TEST(DataForm, BadStringsAreAbsentAndNothingOutsideIsRead) {
  struct Row {
    const char* behaviour;
    QByteArray data;
    qsizetype offset;
    qsizetype next;  // -1: untouched
  };
  const Row rows[] = {
      {"data shorter than the offset", Hex("0000"), 3, -1},
      {"an offset below zero", Hex("00000000"), -1, -1},
      {"an offset at the greatest value", Hex("00000000"), std::numeric_limits<qsizetype>::max(),
       -1},
      {"a length that is cut off", Hex("010000"), 0, -1},
      {"a text that is cut off", Hex("05000000616263"), 0, 9},
      {"a length of 4 GiB less one", Hex("ffffffff61"), 0, 4 + 0xffffffffLL},
      {"bytes that are no UTF-8", Hex("02000000c328"), 0, 6},
      {"UTF-8 that ends within a character", Hex("01000000c3"), 0, 5},
      {"a surrogate in UTF-8", Hex("03000000eda080"), 0, 7},
  };
  for (const Row& row : rows) {
    qsizetype next = -1;
    EXPECT_EQ(CopyStringFromData(row.data, row.offset, &next), std::nullopt) << row.behaviour;
    EXPECT_EQ(next, row.next) << row.behaviour;
  }
}

TEST(DataForm, TheRecordIsPackedInTheWiresOrder) {
  const QByteArray data =
      AppendLimitsRecordToData(QStringLiteral("bob"), QStringLiteral("x"), SampleRecord());
  EXPECT_EQ(data, Hex("03000000626f62"
                      "0100000078") +
                      kSamplePacked);
  EXPECT_EQ(kSamplePacked.size(), kPackedRecordBytes);
  EXPECT_TRUE(SameBytes(ReadLimitsRecordFromData(data, 12), SampleRecord()));
}

TEST(DataForm, TheManualsExampleOfARecord) {
  LimitsRecord record;
  record.nextTopUpTime = 1500000000;
  record.topUpValue = 16909060;
  record.credit = -1;
  record.topUpCoefficient = 60;
  record.weekDayCurfewEnabled = 1;
  record.weekDayStart = 480;
  record.weekDayStop = 1200;
  record.weekEndStop = 1439;
  record.enabled = 1;
  record.weekEndCoefficient = -2;
  record.weekEndValue = 5;
  record.diskQuotaEnabled = 1;
  record.diskQuotaValue = 2048;
  EXPECT_EQ(AppendLimitsRecordToData({}, {}, record).mid(8),
            Hex("002f6859 04030201 ffffffff 3c 01 00 e0010000 b0040000 00000000 9f050000"
                "01 00 fe 05000000 01 00080000"));
}

TEST(DataForm, TopUpTimesTravelAs32UnsignedBits) {
  struct Row {
    const char* behaviour;
    double time;
    std::uint32_t wire;
  };
  const Row rows[] = {
      {"a fraction is cut off", 1.5e9 + 0.9, 1500000000u},
      {"a negative time comes back large", -1.0, 0xffffffffu},
      {"a negative fraction is cut towards zero", -0.9, 0u},
      {"above 32 bits only the low ones go", 4294967296.0 + 7, 7u},
      {"not a number", std::numeric_limits<double>::quiet_NaN(), 0u},
      {"beyond 64 bits", 1e300, 0u},
      {"below 64 bits", -1e300, 0u},
  };
  for (const Row& row : rows) {
    LimitsRecord record;
    record.nextTopUpTime = row.time;
    const QByteArray data = AppendLimitsRecordToData({}, {}, record);
    qsizetype position = 8;
    EXPECT_EQ(ReadUInt32FromBuffer(data, position), row.wire) << row.behaviour;
    EXPECT_EQ(ReadLimitsRecordFromData(data, 8).nextTopUpTime, double(row.wire)) << row.behaviour;
  }
}

TEST(DataForm, ARecordThatIsNotAllThereReadsAsZeroes) {
  LimitsRecord cut = SampleRecord();
  cut.diskQuotaValue = 0x3334;
  EXPECT_TRUE(SameBytes(ReadLimitsRecordFromData(kSamplePacked.chopped(2), 0), cut));
  for (const qsizetype offset :
       {qsizetype(43), qsizetype(44), qsizetype(-1), std::numeric_limits<qsizetype>::max()})
    EXPECT_TRUE(SameBytes(ReadLimitsRecordFromData(kSamplePacked, offset), LimitsRecord()));
}

TEST(BufferForm, WritesAndReadsBack) {
  std::array<char, 32> buffer{};
  qsizetype position = 1;
  EXPECT_EQ(WriteStringToBuffer(buffer, QStringLiteral("né"), position), 8);
  EXPECT_TRUE(WriteUInt32ToBuffer(buffer, 0x01020304, position));
  EXPECT_EQ(position, 12);
  EXPECT_EQ(QByteArray(buffer.data() + 1, 11), Hex("030000006ec3a904030201"));

  qsizetype reading = 1;
  const QByteArrayView view(buffer.data(), position);
  EXPECT_EQ(ReadStringFromBuffer(view, reading), QStringLiteral("né"));
  EXPECT_EQ(ReadUInt32FromBuffer(view, reading), 0x01020304u);
  EXPECT_EQ(reading, 12);
  EXPECT_EQ(ReadUInt32FromBuffer(view, reading), std::nullopt);
  EXPECT_EQ(reading, 12);
}

TEST(BufferForm, WritingStopsAtWhatCannotBeWritten) {
  struct Row {
    const char* behaviour;
    std::size_t room;
    QString string;
    QByteArray written;
  };
  const Row rows[] = {
      {"what stands before a lone surrogate", 16, kLoneSurrogate, Hex("020000006162")},
      {"a character is not cut in two", 7, QStringLiteral("aéé"), Hex("0300000061c3a9")},
      {"no room for the character", 5, QStringLiteral("é"), Hex("00000000")},
      {"no room for the length", 3, QStringLiteral("a"), QByteArray()},
  };
  for (const Row& row : rows) {
    std::vector<char> buffer(row.room, '\x7e');
    qsizetype position = 0;
    EXPECT_EQ(WriteStringToBuffer(buffer, row.string, position), row.written.size())
        << row.behaviour;
    EXPECT_EQ(QByteArray(buffer.data(), position), row.written) << row.behaviour;
    for (auto i = static_cast<std::size_t>(position); i < buffer.size(); ++i)
      EXPECT_EQ(buffer[i], '\x7e') << row.behaviour;
  }
}

TEST(BufferForm, LengthsAreBounded) {
  struct Row {
    const char* behaviour;
    QByteArray buffer;
    bool read;
    qsizetype position;
  };
  const Row rows[] = {
      {"1024 bytes are read", Hex("00040000") + QByteArray(1024, 'a'), true, 1028},
      {"1025 bytes are refused", Hex("01040000") + QByteArray(1025, 'a'), false, 4},
      {"a length below zero is refused", Hex("ffffffff61"), false, 4},
      {"a text that is cut off is passed over", Hex("0300000061"), false, 7},
      {"bytes that are no UTF-8 are passed over", Hex("01000000ff"), false, 5},
      {"a length that is cut off stays", Hex("000000"), false, 0},
  };
  for (const Row& row : rows) {
    qsizetype position = 0;
    EXPECT_EQ(ReadStringFromBuffer(row.buffer, position).has_value(), row.read) << row.behaviour;
    EXPECT_EQ(position, row.position) << row.behaviour;
  }
  qsizetype outside = 9;
  EXPECT_EQ(ReadStringFromBuffer(Hex("00000000"), outside), std::nullopt);
  EXPECT_EQ(outside, 9);
}

TEST(BufferForm, TheImageIsTheRecordAsItStands) {
  const LimitsRecord sample = SampleRecord();
  QByteArray buffer =
      Hex("03000000626f62"
          "0100000078");
  buffer.append(reinterpret_cast<const char*>(&sample), sizeof sample);
  std::optional<QString> user, identifier;
  LimitsRecord record;
  EXPECT_EQ(ReadLimitsImageFromBuffer(buffer, &user, &identifier, &record), 0);
  EXPECT_EQ(user, QStringLiteral("bob"));
  EXPECT_EQ(identifier, QStringLiteral("x"));
  EXPECT_TRUE(SameBytes(record, sample));

  LimitsRecord untouched;
  EXPECT_EQ(ReadLimitsImageFromBuffer(buffer.chopped(1), &user, &identifier, &untouched), 0);
  EXPECT_TRUE(SameBytes(untouched, LimitsRecord()));
  EXPECT_EQ(ReadLimitsImageFromBuffer(Hex("01040000"), &user, &identifier, &untouched), 0);
  EXPECT_EQ(user, std::nullopt);
  EXPECT_EQ(identifier, std::nullopt);
}

// --- The Server's readers.

TEST(Payloads, WhatTheAgentSendsIsRead) {
  QString user, identifier;
  LimitsRecord record;
  const QByteArray report =
      AppendLimitsRecordToData(QStringLiteral("bob"), QStringLiteral("é"), SampleRecord());
  EXPECT_EQ(ParseReportPayload(report, &user, &identifier, &record), PayloadError::None);
  EXPECT_EQ(user, QStringLiteral("bob"));
  EXPECT_EQ(identifier, QStringLiteral("é"));
  EXPECT_TRUE(SameBytes(record, SampleRecord()));
  EXPECT_EQ(ParseNamesPayload(report.chopped(kPackedRecordBytes), &user, &identifier),
            PayloadError::None);
  std::int32_t pid = 0;
  EXPECT_EQ(ParseKillPayload(Hex("0300000031 3233"), &pid), PayloadError::None);
  EXPECT_EQ(pid, 123);
}

TEST(Payloads, HostileBytesGiveAnErrorAndTouchNothing) {
  const QByteArray good =
      AppendLimitsRecordToData(QStringLiteral("bob"), QStringLiteral("x"), SampleRecord());
  struct Row {
    const char* behaviour;
    QByteArray payload;
    PayloadError error;
  };
  const Row rows[] = {
      {"no byte at all", QByteArray(), PayloadError::Truncated},
      {"one byte less than a report", good.chopped(1), PayloadError::Truncated},
      {"one byte more", good + 'x', PayloadError::Surplus},
      {"a name of 4 GiB less one", Hex("ffffffff") + good, PayloadError::TooLong},
      {"a name of 1025 bytes", Hex("01040000") + QByteArray(1025, 'a') + good,
       PayloadError::TooLong},
      {"a name longer than the payload", Hex("00040000") + good, PayloadError::Truncated},
      {"a name that is no UTF-8", Hex("01000000ff") + good.mid(7), PayloadError::NotUtf8},
      {"a field that the sender could not encode", good.mid(7), PayloadError::TooLong},
  };
  for (const Row& row : rows) {
    QString user = QStringLiteral("kept");
    QString identifier = QStringLiteral("too");
    LimitsRecord record;
    EXPECT_EQ(ParseReportPayload(row.payload, &user, &identifier, &record), row.error)
        << row.behaviour;
    EXPECT_EQ(user + identifier, QStringLiteral("kepttoo")) << row.behaviour;
    EXPECT_TRUE(SameBytes(record, LimitsRecord())) << row.behaviour;
  }
  for (qsizetype length = 0; length < good.size(); ++length) {
    QString user, identifier;
    LimitsRecord record;
    EXPECT_NE(ParseReportPayload(good.first(length), &user, &identifier, &record),
              PayloadError::None);
  }
}

TEST(Payloads, OnlyAProcessIdentifierIsOne) {
  for (const char* text : {"", "0", "-1", "+1", " 1", "1 ", "1x", "0x1", "2147483648", "९"}) {
    QByteArray payload;
    AppendStringToData(payload, QString::fromUtf8(text));
    std::int32_t pid = 77;
    EXPECT_EQ(ParseKillPayload(payload, &pid), PayloadError::NotAPid) << text;
    EXPECT_EQ(pid, 77) << text;
  }
}

}  // namespace
}  // namespace vardell
