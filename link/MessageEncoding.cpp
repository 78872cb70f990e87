#include "link/MessageEncoding.h"

#include <QStringDecoder>
#include <QtEndian>
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <utility>

#include "Common Sources/Caps.h"

namespace vardell {

// The record's image and the positions of its fields are the wire's own.
static_assert(std::endian::native == std::endian::little);

namespace {

constexpr qsizetype kLengthBytes = 4;

std::optional<QString> DecodeUtf8(QByteArrayView bytes) {
  QStringDecoder decoder(QStringDecoder::Utf8,
                         QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
  QString text = decoder(bytes);
  if (decoder.hasError()) return std::nullopt;
  return text;
}

bool Holds(qsizetype size, qsizetype offset, qsizetype wanted) {
  return offset >= 0 && offset <= size && size - offset >= wanted;
}

// The UTF-8 form of what comes before the first lone surrogate, at most `room` bytes, no character
// cut in two.
QByteArray Utf8Prefix(const QString& string, qsizetype room) {
  QByteArray bytes;
  for (qsizetype i = 0; i < string.size();) {
    const qsizetype units = string[i].isHighSurrogate() ? 2 : 1;
    const QString character = string.mid(i, units);
    if (!character.isValidUtf16()) break;
    const QByteArray encoded = character.toUtf8();
    if (bytes.size() + encoded.size() > room) break;
    bytes += encoded;
    i += units;
  }
  return bytes;
}

std::uint32_t PackTime(double seconds) {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  if (!(seconds >= -kTwoTo63 && seconds < kTwoTo63)) return 0;  // NaN too
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(seconds));
}

class Packer {
 public:
  explicit Packer(QByteArray* out) : out_(out) {}
  template <typename T>
  void Put(T value) {
    out_->append(reinterpret_cast<const char*>(&value), sizeof value);
  }

 private:
  QByteArray* out_;
};

class Unpacker {
 public:
  explicit Unpacker(const char* bytes) : next_(bytes) {}
  template <typename T>
  void Take(T* value) {
    std::memcpy(value, next_, sizeof *value);
    next_ += sizeof *value;
  }

 private:
  const char* next_;
};

void AppendPackedRecord(QByteArray* data, const LimitsRecord& record) {
  Packer packer(data);
  packer.Put(PackTime(record.nextTopUpTime));
  packer.Put(record.topUpValue);
  packer.Put(record.credit);
  packer.Put(record.topUpCoefficient);
  packer.Put(record.weekDayCurfewEnabled);
  packer.Put(record.weekEndCurfewEnabled);
  packer.Put(record.weekDayStart);
  packer.Put(record.weekDayStop);
  packer.Put(record.weekEndStart);
  packer.Put(record.weekEndStop);
  packer.Put(record.enabled);
  packer.Put(record.reportCredit);
  packer.Put(record.weekEndCoefficient);
  packer.Put(record.weekEndValue);
  packer.Put(record.diskQuotaEnabled);
  packer.Put(record.diskQuotaValue);
}

// `bytes`: kPackedRecordBytes of them.
LimitsRecord UnpackRecord(const char* bytes) {
  LimitsRecord record;
  std::uint32_t time = 0;
  Unpacker unpacker(bytes);
  unpacker.Take(&time);
  record.nextTopUpTime = time;
  unpacker.Take(&record.topUpValue);
  unpacker.Take(&record.credit);
  unpacker.Take(&record.topUpCoefficient);
  unpacker.Take(&record.weekDayCurfewEnabled);
  unpacker.Take(&record.weekEndCurfewEnabled);
  unpacker.Take(&record.weekDayStart);
  unpacker.Take(&record.weekDayStop);
  unpacker.Take(&record.weekEndStart);
  unpacker.Take(&record.weekEndStop);
  unpacker.Take(&record.enabled);
  unpacker.Take(&record.reportCredit);
  unpacker.Take(&record.weekEndCoefficient);
  unpacker.Take(&record.weekEndValue);
  unpacker.Take(&record.diskQuotaEnabled);
  unpacker.Take(&record.diskQuotaValue);
  return record;
}

// Takes fields off the front of a payload. The first error stays; what is read after it is empty.
class PayloadReader {
 public:
  explicit PayloadReader(QByteArrayView payload) : rest_(payload) {}

  QString Name() {
    if (!Need(kLengthBytes)) return {};
    const auto length = qFromLittleEndian<std::uint32_t>(Take(kLengthBytes).data());
    if (length > kMaxNameBytes) return Fail(PayloadError::TooLong), QString();
    if (!Need(static_cast<qsizetype>(length))) return {};
    std::optional<QString> name = DecodeUtf8(Take(static_cast<qsizetype>(length)));
    if (!name) Fail(PayloadError::NotUtf8);
    return std::move(name).value_or(QString());
  }

  LimitsRecord Record() {
    return Need(kPackedRecordBytes) ? UnpackRecord(Take(kPackedRecordBytes).data())
                                    : LimitsRecord();
  }

  PayloadError Finish() {
    if (!rest_.isEmpty()) Fail(PayloadError::Surplus);
    return error_;
  }

 private:
  void Fail(PayloadError error) {
    if (error_ == PayloadError::None) error_ = error;
  }
  bool Need(qsizetype bytes) {
    if (error_ == PayloadError::None && rest_.size() < bytes) error_ = PayloadError::Truncated;
    return error_ == PayloadError::None;
  }
  QByteArrayView Take(qsizetype bytes) {
    const QByteArrayView front = rest_.first(bytes);
    rest_ = rest_.sliced(bytes);
    return front;
  }

  QByteArrayView rest_;
  PayloadError error_ = PayloadError::None;
};

}  // namespace

void AppendStringToData(QByteArray& data, const QString& string, qsizetype* outStartOffset) {
  if (outStartOffset != nullptr) *outStartOffset = data.size();
  if (!string.isValidUtf16()) return;
  const QByteArray bytes = string.toUtf8();
  Packer(&data).Put(static_cast<std::uint32_t>(bytes.size()));
  data += bytes;
}

std::optional<QString> CopyStringFromData(const QByteArray& data, qsizetype offset,
                                          qsizetype* outNextOffset) {
  if (!Holds(data.size(), offset, kLengthBytes)) return std::nullopt;
  const qsizetype length = qFromLittleEndian<std::uint32_t>(data.constData() + offset);
  const qsizetype start = offset + kLengthBytes;
  if (outNextOffset != nullptr) *outNextOffset = start + length;
  if (!Holds(data.size(), start, length)) return std::nullopt;
  return DecodeUtf8(QByteArrayView(data).sliced(start, length));
}

QByteArray AppendLimitsRecordToData(const QString& userName, const QString& appIdentifier,
                                    const LimitsRecord& record) {
  QByteArray data;
  AppendStringToData(data, userName);
  AppendStringToData(data, appIdentifier);
  AppendPackedRecord(&data, record);
  return data;
}

LimitsRecord ReadLimitsRecordFromData(const QByteArray& data, qsizetype offset) {
  std::array<char, kPackedRecordBytes> bytes{};
  if (Holds(data.size(), offset, 1)) {
    const qsizetype there = std::min(kPackedRecordBytes, data.size() - offset);
    std::memcpy(bytes.data(), data.constData() + offset, static_cast<std::size_t>(there));
  }
  return UnpackRecord(bytes.data());
}

qsizetype WriteStringToBuffer(std::span<char> buffer, const QString& string, qsizetype& position) {
  const auto size = static_cast<qsizetype>(buffer.size());
  if (!Holds(size, position, kLengthBytes)) return position;
  const qsizetype start = position + kLengthBytes;
  const QByteArray bytes = Utf8Prefix(string, size - start);
  WriteUInt32ToBuffer(buffer, static_cast<std::uint32_t>(bytes.size()), position);
  std::copy(bytes.begin(), bytes.end(), buffer.begin() + start);
  position += bytes.size();
  return position;
}

std::optional<QString> ReadStringFromBuffer(QByteArrayView buffer, qsizetype& position) {
  const std::optional<std::uint32_t> word = ReadUInt32FromBuffer(buffer, position);
  if (!word) return std::nullopt;
  const auto length = static_cast<std::int32_t>(*word);
  if (length < 0 || length > kMaxBufferStringBytes) return std::nullopt;
  const qsizetype start = position;
  position += length;
  if (!Holds(buffer.size(), start, length)) return std::nullopt;
  return DecodeUtf8(buffer.sliced(start, length));
}

bool WriteUInt32ToBuffer(std::span<char> buffer, std::uint32_t value, qsizetype& position) {
  if (!Holds(static_cast<qsizetype>(buffer.size()), position, kLengthBytes)) return false;
  qToLittleEndian(value, buffer.data() + position);
  position += kLengthBytes;
  return true;
}

std::optional<std::uint32_t> ReadUInt32FromBuffer(QByteArrayView buffer, qsizetype& position) {
  if (!Holds(buffer.size(), position, kLengthBytes)) return std::nullopt;
  const auto value = qFromLittleEndian<std::uint32_t>(buffer.data() + position);
  position += kLengthBytes;
  return value;
}

std::int32_t ReadLimitsImageFromBuffer(QByteArrayView buffer, std::optional<QString>* outUserName,
                                       std::optional<QString>* outAppIdentifier,
                                       LimitsRecord* outRecord) {
  qsizetype position = 0;
  *outUserName = ReadStringFromBuffer(buffer, position);
  *outAppIdentifier = ReadStringFromBuffer(buffer, position);
  if (Holds(buffer.size(), position, sizeof(LimitsRecord)))
    std::memcpy(outRecord, buffer.data() + position, sizeof *outRecord);
  return 0;
}

const char* PayloadErrorText(PayloadError error) {
  switch (error) {
    case PayloadError::None:
      return "no error";
    case PayloadError::Truncated:
      return "ends within a field";
    case PayloadError::TooLong:
      return "a name is too long";
    case PayloadError::NotUtf8:
      return "a name is not UTF-8";
    case PayloadError::Surplus:
      return "bytes behind the last field";
    case PayloadError::NotAPid:
      return "no process identifier";
  }
  return "unknown error";
}

PayloadError ParseSinglePayload(QByteArrayView payload, QString* out) {
  PayloadReader reader(payload);
  QString text = reader.Name();
  const PayloadError error = reader.Finish();
  if (error == PayloadError::None) *out = std::move(text);
  return error;
}

PayloadError ParseNamesPayload(QByteArrayView payload, QString* outUserName,
                               QString* outAppIdentifier) {
  PayloadReader reader(payload);
  QString userName = reader.Name();
  QString appIdentifier = reader.Name();
  const PayloadError error = reader.Finish();
  if (error != PayloadError::None) return error;
  *outUserName = std::move(userName);
  *outAppIdentifier = std::move(appIdentifier);
  return error;
}

PayloadError ParseReportPayload(QByteArrayView payload, QString* outUserName,
                                QString* outAppIdentifier, LimitsRecord* outRecord) {
  PayloadReader reader(payload);
  QString userName = reader.Name();
  QString appIdentifier = reader.Name();
  const LimitsRecord record = reader.Record();
  const PayloadError error = reader.Finish();
  if (error != PayloadError::None) return error;
  *outUserName = std::move(userName);
  *outAppIdentifier = std::move(appIdentifier);
  *outRecord = record;
  return error;
}

PayloadError ParseKillPayload(QByteArrayView payload, std::int32_t* outPid) {
  QString text;
  const PayloadError error = ParseSinglePayload(payload, &text);
  if (error != PayloadError::None) return error;
  const bool digits = std::all_of(text.begin(), text.end(), [](QChar character) {
    return character >= QLatin1Char('0') && character <= QLatin1Char('9');
  });
  bool fits = false;
  const std::int32_t pid = text.toInt(&fits);
  if (!digits || !fits || pid <= 0) return PayloadError::NotAPid;
  *outPid = pid;
  return PayloadError::None;
}

}  // namespace vardell
