#include <QtEndian>
#include <algorithm>
#include <bit>
#include <limits>

#include "Common Sources/ArchiveDates.h"
#include "Common Sources/BinaryPropertyList.h"
#include "Common Sources/Caps.h"

namespace vardell {

namespace {

using Kind = BinaryPropertyListReader::Kind;

constexpr char kMagic[] = "bplist00";
constexpr std::size_t kMagicBytes = 8;
constexpr std::size_t kTrailerBytes = 32;
constexpr std::size_t kUnusedTrailerBytes = 6;
constexpr std::uint8_t kCountFollows = 0xF;

std::uint8_t ByteAt(QByteArrayView bytes, std::size_t place) {
  return static_cast<std::uint8_t>(bytes[static_cast<qsizetype>(place)]);
}

std::optional<Kind> SimpleKind(std::uint8_t low) {
  if (low == 0x8) return Kind::False;
  if (low == 0x9) return Kind::True;
  return std::nullopt;
}

// The kinds whose low half gives a width, as an exponent of 2.
std::optional<Kind> NumberKind(std::uint8_t high, std::uint8_t low) {
  if (high == 0x1 && low <= 4) return Kind::Integer;
  if (high == 0x2 && (low == 2 || low == 3)) return Kind::Real;
  if (high == 0x3 && low == 3) return Kind::Date;
  return std::nullopt;
}

// The kinds whose low half is a count, or tells that a count follows.
std::optional<Kind> CountedKind(std::uint8_t high) {
  switch (high) {
    case 0x4:
      return Kind::Data;
    case 0x5:
      return Kind::AsciiText;
    case 0x6:
      return Kind::Text;
    case 0xA:
      return Kind::Array;
    case 0xD:
      return Kind::Dictionary;
    default:
      return std::nullopt;
  }
}

}  // namespace

std::uint64_t BinaryPropertyListReader::Unsigned(std::size_t start, std::size_t width) const {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i) value = value << 8 | ByteAt(bytes_, start + i);
  return value;
}

std::uint64_t BinaryPropertyListReader::BytesOf(const Object& object) const {
  switch (object.kind) {
    case Kind::Text:
      return object.count * 2;
    case Kind::Array:
      return object.count * referenceBytes_;
    case Kind::Dictionary:
      return object.count * referenceBytes_ * 2;
    default:
      return object.count;
  }
}

std::optional<BinaryPropertyListReader::Object> BinaryPropertyListReader::Parse(
    std::uint64_t offset) const {
  if (offset < kMagicBytes || offset >= tableStart_) return std::nullopt;
  const std::uint8_t marker = ByteAt(bytes_, offset);
  const std::uint8_t high = marker >> 4;
  const std::uint8_t low = marker & 0xF;
  Object object{Kind::False, offset + 1, 0};
  if (high == 0) {
    const auto kind = SimpleKind(low);
    if (!kind) return std::nullopt;
    object.kind = *kind;
  } else if (high == 0x8) {
    if (low > 7) return std::nullopt;
    object.kind = Kind::Uid;
    object.count = low + 1u;
  } else if (const auto number = NumberKind(high, low)) {
    object.kind = *number;
    object.count = std::uint64_t{1} << low;
  } else if (const auto counted = CountedKind(high)) {
    object.kind = *counted;
    object.count = low;
    if (low == kCountFollows) {
      if (object.start >= tableStart_) return std::nullopt;
      const std::uint8_t width = ByteAt(bytes_, object.start);
      if (width < 0x10 || width > 0x13) return std::nullopt;
      const std::size_t countBytes = std::size_t{1} << (width & 0xF);
      if (countBytes > tableStart_ - object.start - 1) return std::nullopt;
      object.count = Unsigned(object.start + 1, countBytes);
      object.start += 1 + countBytes;
    }
  } else {
    return std::nullopt;
  }
  const std::size_t room = tableStart_ - object.start;
  if (object.count > room || BytesOf(object) > room) return std::nullopt;
  return object;
}

BinaryPropertyListReader::Object BinaryPropertyListReader::At(ObjectIndex index) const {
  return *Parse(Unsigned(tableStart_ + std::size_t{index} * offsetBytes_, offsetBytes_));
}

ObjectIndex BinaryPropertyListReader::Reference(const Object& container,
                                                std::uint64_t place) const {
  return static_cast<ObjectIndex>(
      Unsigned(container.start + place * referenceBytes_, referenceBytes_));
}

bool BinaryPropertyListReader::ReferencesFit(const Object& object, std::uint64_t objects) const {
  std::uint64_t references = 0;
  if (object.kind == Kind::Array) references = object.count;
  if (object.kind == Kind::Dictionary) references = object.count * 2;
  for (std::uint64_t place = 0; place < references; ++place) {
    if (Unsigned(object.start + place * referenceBytes_, referenceBytes_) >= objects) return false;
  }
  return true;
}

// Objects that overlap could hold far more references than the file has bytes.
bool BinaryPropertyListReader::ObjectsFit(std::uint64_t count) const {
  std::uint64_t room = tableStart_ - kMagicBytes;
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t offset = Unsigned(tableStart_ + i * offsetBytes_, offsetBytes_);
    const auto object = Parse(offset);
    if (!object) return false;
    const std::uint64_t length = object->start + BytesOf(*object) - offset;
    if (length > room || !ReferencesFit(*object, count)) return false;
    room -= length;
  }
  return room == 0;
}

std::optional<BinaryPropertyListReader> BinaryPropertyListReader::Open(QByteArrayView bytes) {
  const auto size = static_cast<std::size_t>(bytes.size());
  if (size > kMaxArchiveBytes || size < kMagicBytes + kTrailerBytes) return std::nullopt;
  if (!bytes.startsWith(kMagic)) return std::nullopt;
  const std::size_t trailer = size - kTrailerBytes;
  const auto wide = [&](std::size_t place) {
    return qFromBigEndian<std::uint64_t>(bytes.data() + trailer + place);
  };
  const std::uint8_t offsetBytes = ByteAt(bytes, trailer + 6);
  const std::uint8_t referenceBytes = ByteAt(bytes, trailer + 7);
  const std::uint64_t objects = wide(8);
  const std::uint64_t root = wide(16);
  const std::uint64_t tableStart = wide(24);
  for (std::size_t i = 0; i < kUnusedTrailerBytes; ++i) {
    if (ByteAt(bytes, trailer + i) != 0) return std::nullopt;
  }
  if (offsetBytes < 1 || offsetBytes > 8 || referenceBytes < 1 || referenceBytes > 8) {
    return std::nullopt;
  }
  if (tableStart < kMagicBytes || tableStart > trailer) return std::nullopt;
  const std::uint64_t tableBytes = trailer - tableStart;
  if (objects > tableBytes || objects * offsetBytes != tableBytes) return std::nullopt;
  if (root >= objects) return std::nullopt;
  BinaryPropertyListReader reader(bytes, tableStart, offsetBytes, referenceBytes);
  if (!reader.ObjectsFit(objects)) return std::nullopt;
  reader.root_ = static_cast<ObjectIndex>(root);
  return reader;
}

std::optional<QVariant> BinaryPropertyListReader::IntegerAt(const Object& object) const {
  if (object.count < 16) {
    return QVariant(static_cast<qlonglong>(Unsigned(object.start, object.count)));
  }
  if (Unsigned(object.start, 8) != 0) return std::nullopt;
  const std::uint64_t value = Unsigned(object.start + 8, 8);
  if (value > static_cast<std::uint64_t>(std::numeric_limits<qlonglong>::max())) {
    return QVariant(static_cast<qulonglong>(value));
  }
  return QVariant(static_cast<qlonglong>(value));
}

double BinaryPropertyListReader::RealAt(const Object& object) const {
  const std::uint64_t bits = Unsigned(object.start, object.count);
  if (object.count == 4) return std::bit_cast<float>(static_cast<std::uint32_t>(bits));
  return std::bit_cast<double>(bits);
}

QByteArrayView BinaryPropertyListReader::BytesAt(const Object& object) const {
  return bytes_.sliced(static_cast<qsizetype>(object.start), static_cast<qsizetype>(object.count));
}

std::optional<QVariant> BinaryPropertyListReader::TextAt(const Object& object) const {
  if (object.kind == Kind::AsciiText) {
    const QByteArrayView ascii = BytesAt(object);
    const bool isAscii = std::all_of(ascii.begin(), ascii.end(),
                                     [](char c) { return static_cast<signed char>(c) >= 0; });
    if (!isAscii) return std::nullopt;
    return QVariant(QString::fromLatin1(ascii));
  }
  const auto count = static_cast<qsizetype>(object.count);
  QString text(count, Qt::Uninitialized);
  qFromBigEndian<char16_t>(bytes_.data() + object.start, count, text.data());
  if (!text.isValidUtf16()) return std::nullopt;
  return QVariant(text);
}

std::optional<QVariant> BinaryPropertyListReader::Scalar(ObjectIndex index) const {
  const Object object = At(index);
  switch (object.kind) {
    case Kind::False:
    case Kind::True:
      return QVariant(object.kind == Kind::True);
    case Kind::Integer:
      return IntegerAt(object);
    case Kind::Real:
      return QVariant(RealAt(object));
    case Kind::Date: {
      const auto date = DateFromReferenceSeconds(RealAt(object));
      return date ? std::optional(QVariant(*date)) : std::nullopt;
    }
    case Kind::Data:
      return QVariant(BytesAt(object).toByteArray());
    case Kind::AsciiText:
    case Kind::Text:
      return TextAt(object);
    default:
      return std::nullopt;
  }
}

std::uint64_t BinaryPropertyListReader::TextBytes(ObjectIndex index) const {
  const Object object = At(index);
  if (object.kind == Kind::Data) return object.count;
  const bool isText = object.kind == Kind::AsciiText || object.kind == Kind::Text;
  return isText ? object.count * 2 : 0;
}

bool BinaryPropertyListReader::IsText(ObjectIndex index, QByteArrayView ascii) const {
  const Object object = At(index);
  return object.kind == Kind::AsciiText && BytesAt(object) == ascii;
}

std::optional<Uid> BinaryPropertyListReader::UidAt(ObjectIndex index) const {
  const Object object = At(index);
  if (object.kind != Kind::Uid) return std::nullopt;
  const std::uint64_t number = Unsigned(object.start, object.count);
  if (number > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  return Uid{static_cast<std::uint32_t>(number)};
}

std::uint32_t BinaryPropertyListReader::Count(ObjectIndex index) const {
  const Object object = At(index);
  const bool isContainer = object.kind == Kind::Array || object.kind == Kind::Dictionary;
  return isContainer ? static_cast<std::uint32_t>(object.count) : 0;
}

ObjectIndex BinaryPropertyListReader::Element(ObjectIndex array, std::uint32_t member) const {
  return Reference(At(array), member);
}

std::optional<ObjectIndex> BinaryPropertyListReader::Find(ObjectIndex dictionary,
                                                          QByteArrayView key) const {
  const Object object = At(dictionary);
  if (object.kind != Kind::Dictionary) return std::nullopt;
  for (std::uint64_t entry = 0; entry < object.count; ++entry) {
    if (IsText(Reference(object, entry), key)) return Reference(object, object.count + entry);
  }
  return std::nullopt;
}

}  // namespace vardell
