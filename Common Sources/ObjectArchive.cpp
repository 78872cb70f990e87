#include "Common Sources/ObjectArchive.h"

#include <QStringDecoder>
#include <QtEndian>
#include <bit>
#include <limits>

#include "Common Sources/ArchiveDates.h"
#include "Common Sources/Caps.h"

namespace vardell {

namespace {

constexpr char kMagic[] = "VardellValue";
constexpr qsizetype kMagicBytes = 12;
constexpr std::uint32_t kVersion = 1;

enum class Tag : std::uint8_t {
  False = 1,
  True,
  Integer,
  Unsigned,
  Real,
  Date,
  String,
  Data,
  Array,
  Dictionary
};

constexpr std::uint64_t kGreatestSigned = std::numeric_limits<std::int64_t>::max();

class Writer {
 public:
  std::optional<QByteArray> Archive(const QVariant& value);

 private:
  bool Value(const QVariant& value, int depth);
  bool Array(const QVariantList& list, int depth);
  bool Dictionary(const QVariantMap& map, int depth);
  bool Text(const QString& text);
  bool Bytes(const QByteArray& bytes);
  bool Wide(Tag tag, std::uint64_t bits) { return Put(tag) && Number(bits); }
  bool Unsigned(std::uint64_t value);
  bool Date(const QDateTime& date);
  bool Counted(Tag tag, qsizetype count);
  bool Put(Tag tag) { return Number(static_cast<std::uint8_t>(tag)); }
  bool Append(QByteArrayView bytes);
  template <typename Integer>
  bool Number(Integer value);

  QByteArray out_;
  std::uint64_t nodes_ = 0;
};

bool Writer::Append(QByteArrayView bytes) {
  const qsizetype room = static_cast<qsizetype>(kMaxArchiveBytes) - out_.size();
  if (bytes.size() > room) return false;
  out_.append(bytes);
  return true;
}

template <typename Integer>
bool Writer::Number(Integer value) {
  char bytes[sizeof value];
  qToLittleEndian(value, bytes);
  return Append({bytes, sizeof bytes});
}

bool Writer::Unsigned(std::uint64_t value) {
  return Wide(value > kGreatestSigned ? Tag::Unsigned : Tag::Integer, value);
}

bool Writer::Date(const QDateTime& date) {
  const auto milliseconds = MillisecondsFromDate(date);
  return milliseconds && Wide(Tag::Date, static_cast<std::uint64_t>(*milliseconds));
}

bool Writer::Bytes(const QByteArray& bytes) {
  if (static_cast<std::size_t>(bytes.size()) > kMaxArchiveBytes) return false;
  return Number(static_cast<std::uint32_t>(bytes.size())) && Append(bytes);
}

bool Writer::Text(const QString& text) {
  return text.isValidUtf16() && Bytes(text.toUtf8());
}

bool Writer::Counted(Tag tag, qsizetype count) {
  if (static_cast<std::uint64_t>(count) > kMaxArchiveNodes) return false;
  return Put(tag) && Number(static_cast<std::uint32_t>(count));
}

bool Writer::Array(const QVariantList& list, int depth) {
  if (depth > kMaxPropertyListDepth || !Counted(Tag::Array, list.size())) return false;
  for (const QVariant& value : list) {
    if (!Value(value, depth)) return false;
  }
  return true;
}

bool Writer::Dictionary(const QVariantMap& map, int depth) {
  if (depth > kMaxPropertyListDepth || !Counted(Tag::Dictionary, map.size())) return false;
  nodes_ += static_cast<std::uint64_t>(map.size());
  for (auto entry = map.begin(); entry != map.end(); ++entry) {
    if (!Text(entry.key()) || !Value(entry.value(), depth)) return false;
  }
  return true;
}

bool Writer::Value(const QVariant& value, int depth) {
  if (++nodes_ > kMaxArchiveNodes) return false;
  switch (value.typeId()) {
    case QMetaType::QVariantMap:
      return Dictionary(value.toMap(), depth + 1);
    case QMetaType::QVariantList:
      return Array(value.toList(), depth + 1);
    case QMetaType::QString:
      return Put(Tag::String) && Text(value.toString());
    case QMetaType::Int:
    case QMetaType::LongLong:
      return Wide(Tag::Integer, static_cast<std::uint64_t>(value.toLongLong()));
    case QMetaType::UInt:
    case QMetaType::ULongLong:
      return Unsigned(value.toULongLong());
    case QMetaType::Double:
      return Wide(Tag::Real, std::bit_cast<std::uint64_t>(value.toDouble()));
    case QMetaType::Bool:
      return Put(value.toBool() ? Tag::True : Tag::False);
    case QMetaType::QDateTime:
      return Date(value.toDateTime());
    case QMetaType::QByteArray:
      return Put(Tag::Data) && Bytes(value.toByteArray());
    default:
      return false;
  }
}

std::optional<QByteArray> Writer::Archive(const QVariant& value) {
  if (!Append({kMagic, kMagicBytes}) || !Number(kVersion) || !Value(value, 0)) return std::nullopt;
  return std::move(out_);
}

class Reader {
 public:
  explicit Reader(QByteArrayView bytes) : rest_(bytes) {}
  std::optional<QVariant> Archive();

 private:
  std::optional<QVariant> Value(int depth);
  std::optional<QVariant> Array(int depth);
  std::optional<QVariant> Dictionary(int depth);
  std::optional<QVariant> Wide(Tag tag);
  std::optional<QString> Text();
  std::optional<QByteArrayView> Bytes();
  std::optional<std::uint32_t> Count(std::uint32_t nodesOfMember, std::uint64_t leastBytes);
  template <typename Integer>
  std::optional<Integer> Number();

  QByteArrayView rest_;
  std::uint64_t nodes_ = 1;
};

template <typename Integer>
std::optional<Integer> Reader::Number() {
  if (rest_.size() < static_cast<qsizetype>(sizeof(Integer))) return std::nullopt;
  const auto value = qFromLittleEndian<Integer>(rest_.data());
  rest_ = rest_.sliced(sizeof value);
  return value;
}

std::optional<QByteArrayView> Reader::Bytes() {
  const auto length = Number<std::uint32_t>();
  if (!length || *length > static_cast<std::uint64_t>(rest_.size())) return std::nullopt;
  const QByteArrayView bytes = rest_.first(*length);
  rest_ = rest_.sliced(*length);
  return bytes;
}

// Without the second flag a U+FEFF at the start would be lost.
std::optional<QString> Reader::Text() {
  const auto bytes = Bytes();
  if (!bytes) return std::nullopt;
  QStringDecoder decoder(QStringDecoder::Utf8,
                         QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
  QString text = decoder(*bytes);
  if (decoder.hasError()) return std::nullopt;
  return text;
}

// Members are paid for in advance, so that nested counts together cannot reserve more than one
// value may have.
std::optional<std::uint32_t> Reader::Count(std::uint32_t nodesOfMember, std::uint64_t leastBytes) {
  const auto count = Number<std::uint32_t>();
  if (!count || *count > static_cast<std::uint64_t>(rest_.size()) / leastBytes) return std::nullopt;
  nodes_ += std::uint64_t{*count} * nodesOfMember;
  if (nodes_ > kMaxArchiveNodes) return std::nullopt;
  return count;
}

std::optional<QVariant> Reader::Array(int depth) {
  const auto count = Count(1, 1);
  if (depth > kMaxPropertyListDepth || !count) return std::nullopt;
  QVariantList list;
  list.reserve(static_cast<qsizetype>(*count));
  for (std::uint32_t i = 0; i < *count; ++i) {
    std::optional<QVariant> value = Value(depth);
    if (!value) return std::nullopt;
    list.append(std::move(*value));
  }
  return QVariant(list);
}

std::optional<QVariant> Reader::Dictionary(int depth) {
  const auto count = Count(2, 5);
  if (depth > kMaxPropertyListDepth || !count) return std::nullopt;
  QVariantMap map;
  for (std::uint32_t i = 0; i < *count; ++i) {
    const auto key = Text();
    if (!key || (!map.isEmpty() && !(map.lastKey() < *key))) return std::nullopt;
    const auto value = Value(depth);
    if (!value) return std::nullopt;
    map.insert(map.cend(), *key, *value);
  }
  return QVariant(map);
}

std::optional<QVariant> Reader::Wide(Tag tag) {
  const auto bits = Number<std::uint64_t>();
  if (!bits) return std::nullopt;
  const auto number = static_cast<std::int64_t>(*bits);
  switch (tag) {
    case Tag::Integer:
      return QVariant(static_cast<qlonglong>(number));
    case Tag::Unsigned:
      if (*bits <= kGreatestSigned) return std::nullopt;
      return QVariant(static_cast<qulonglong>(*bits));
    case Tag::Date: {
      const auto date = DateFromMilliseconds(number);
      return date ? std::optional(QVariant(*date)) : std::nullopt;
    }
    default:
      return QVariant(std::bit_cast<double>(*bits));
  }
}

std::optional<QVariant> Reader::Value(int depth) {
  const auto byte = Number<std::uint8_t>();
  if (!byte) return std::nullopt;
  const auto tag = static_cast<Tag>(*byte);
  switch (tag) {
    case Tag::False:
    case Tag::True:
      return QVariant(tag == Tag::True);
    case Tag::Integer:
    case Tag::Unsigned:
    case Tag::Real:
    case Tag::Date:
      return Wide(tag);
    case Tag::String: {
      const auto text = Text();
      return text ? std::optional(QVariant(*text)) : std::nullopt;
    }
    case Tag::Data: {
      const auto bytes = Bytes();
      return bytes ? std::optional(QVariant(bytes->toByteArray())) : std::nullopt;
    }
    case Tag::Array:
      return Array(depth + 1);
    case Tag::Dictionary:
      return Dictionary(depth + 1);
  }
  return std::nullopt;
}

std::optional<QVariant> Reader::Archive() {
  if (!rest_.startsWith(QByteArrayView(kMagic, kMagicBytes))) return std::nullopt;
  rest_ = rest_.sliced(kMagicBytes);
  if (Number<std::uint32_t>() != kVersion) return std::nullopt;
  std::optional<QVariant> value = Value(0);
  if (!rest_.isEmpty()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<QByteArray> WriteObjectArchive(const QVariant& value) {
  return Writer().Archive(value);
}

std::optional<QVariant> ReadObjectArchive(const QByteArray& bytes) {
  if (static_cast<std::size_t>(bytes.size()) > kMaxArchiveBytes) return std::nullopt;
  return Reader(bytes).Archive();
}

}  // namespace vardell
