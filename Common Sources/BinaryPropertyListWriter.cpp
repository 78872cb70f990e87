#include <QtEndian>
#include <algorithm>
#include <bit>
#include <limits>

#include "Common Sources/BinaryPropertyList.h"
#include "Common Sources/Caps.h"

namespace vardell {

namespace {

constexpr std::size_t kTrailerBytes = 32;
constexpr std::uint64_t kCountFollows = 0xF;

// Of numbers and UIDs.
int WidthFor(std::uint64_t greatest) {
  if (greatest <= 0xFF) return 1;
  if (greatest <= 0xFFFF) return 2;
  return greatest <= 0xFFFFFFFF ? 4 : 8;
}

// Of references and offsets. Running numbers of four bytes would take zlib five times as long to
// compress as those of three.
int TableWidthFor(std::uint64_t greatest) {
  return greatest > 0xFFFF && greatest <= 0xFFFFFF ? 3 : WidthFor(greatest);
}

std::uint8_t Exponent(int width) {
  return static_cast<std::uint8_t>(std::countr_zero(static_cast<unsigned>(width)));
}

bool IsAscii(QStringView text) {
  return std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x80; });
}

void AppendBigEndian(QByteArray& bytes, std::uint64_t value, int width) {
  char digits[sizeof value];
  qToBigEndian(value, digits);
  bytes.append(digits + sizeof value - width, width);
}

}  // namespace

bool BinaryPropertyListWriter::IsFull() const {
  return static_cast<std::size_t>(bytes_.size()) + references_.size() > kMaxArchiveBytes;
}

ObjectIndex BinaryPropertyListWriter::Begin() {
  const auto index = static_cast<ObjectIndex>(objects_.size());
  if (!IsFull()) {
    objects_.push_back({static_cast<std::uint32_t>(bytes_.size()),
                        static_cast<std::uint32_t>(references_.size())});
  }
  return index;
}

void BinaryPropertyListWriter::BigEndian(std::uint64_t value, int width) {
  if (!IsFull()) AppendBigEndian(bytes_, value, width);
}

void BinaryPropertyListWriter::Counted(std::uint8_t marker, std::uint64_t count) {
  BigEndian(marker | std::min(count, kCountFollows), 1);
  if (count < kCountFollows) return;
  const int width = WidthFor(count);
  BigEndian(0x10u | Exponent(width), 1);
  BigEndian(count, width);
}

void BinaryPropertyListWriter::Refer(std::span<const ObjectIndex> places) {
  if (!IsFull()) references_.insert(references_.end(), places.begin(), places.end());
}

ObjectIndex BinaryPropertyListWriter::AddBoolean(bool value) {
  const ObjectIndex index = Begin();
  BigEndian(value ? 0x09 : 0x08, 1);
  return index;
}

// Widths below 8 are without a sign.
ObjectIndex BinaryPropertyListWriter::AddInteger(std::int64_t value) {
  const ObjectIndex index = Begin();
  const int width = WidthFor(static_cast<std::uint64_t>(value));
  BigEndian(0x10u | Exponent(width), 1);
  BigEndian(static_cast<std::uint64_t>(value), width);
  return index;
}

ObjectIndex BinaryPropertyListWriter::AddUnsigned(std::uint64_t value) {
  if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return AddInteger(static_cast<std::int64_t>(value));
  }
  const ObjectIndex index = Begin();
  BigEndian(0x14, 1);
  BigEndian(0, 8);
  BigEndian(value, 8);
  return index;
}

ObjectIndex BinaryPropertyListWriter::AddReal(double value) {
  const ObjectIndex index = Begin();
  BigEndian(0x23, 1);
  BigEndian(std::bit_cast<std::uint64_t>(value), 8);
  return index;
}

ObjectIndex BinaryPropertyListWriter::AddData(QByteArrayView data) {
  const ObjectIndex index = Begin();
  Counted(0x40, static_cast<std::uint64_t>(data.size()));
  if (!IsFull()) bytes_.append(data);
  return index;
}

ObjectIndex BinaryPropertyListWriter::AddText(QStringView text) {
  const ObjectIndex index = Begin();
  const bool isAscii = IsAscii(text);
  Counted(isAscii ? 0x50 : 0x60, static_cast<std::uint64_t>(text.size()));
  if (IsFull()) return index;
  if (isAscii) {
    bytes_.append(text.toLatin1());
    return index;
  }
  const qsizetype start = bytes_.size();
  bytes_.resize(start + 2 * text.size());
  qToBigEndian<char16_t>(text.utf16(), text.size(), bytes_.data() + start);
  return index;
}

ObjectIndex BinaryPropertyListWriter::AddUid(Uid uid) {
  const ObjectIndex index = Begin();
  const int width = WidthFor(uid.number);
  BigEndian(0x80u | static_cast<unsigned>(width - 1), 1);
  BigEndian(uid.number, width);
  return index;
}

ObjectIndex BinaryPropertyListWriter::AddArray(std::span<const ObjectIndex> members) {
  const ObjectIndex index = Begin();
  Counted(0xA0, members.size());
  Refer(members);
  return index;
}

ObjectIndex BinaryPropertyListWriter::AddDictionary(std::span<const ObjectIndex> keys,
                                                    std::span<const ObjectIndex> values) {
  const ObjectIndex index = Begin();
  Counted(0xD0, keys.size());
  Refer(keys);
  Refer(values);
  return index;
}

std::optional<QByteArray> BinaryPropertyListWriter::Finish(ObjectIndex root) const {
  if (IsFull()) return std::nullopt;
  const int referenceWidth = TableWidthFor(objects_.size() - 1);
  const std::uint64_t tableStart = 8 + static_cast<std::uint64_t>(bytes_.size()) +
                                   references_.size() * static_cast<unsigned>(referenceWidth);
  const int offsetWidth = TableWidthFor(tableStart);
  const std::uint64_t size =
      tableStart + objects_.size() * static_cast<unsigned>(offsetWidth) + kTrailerBytes;
  if (size > kMaxArchiveBytes) return std::nullopt;

  QByteArray out("bplist00");
  out.reserve(static_cast<qsizetype>(size));
  QByteArray table;
  for (std::size_t i = 0; i < objects_.size(); ++i) {
    AppendBigEndian(table, static_cast<std::uint64_t>(out.size()), offsetWidth);
    const bool isLast = i + 1 == objects_.size();
    const Object end = isLast ? Object{static_cast<std::uint32_t>(bytes_.size()),
                                       static_cast<std::uint32_t>(references_.size())}
                              : objects_[i + 1];
    out.append(bytes_.constData() + objects_[i].start, end.start - objects_[i].start);
    for (std::uint32_t r = objects_[i].firstReference; r < end.firstReference; ++r) {
      AppendBigEndian(out, references_[r], referenceWidth);
    }
  }
  out.append(table);
  out.append(6, '\0');
  AppendBigEndian(out, static_cast<unsigned>(offsetWidth), 1);
  AppendBigEndian(out, static_cast<unsigned>(referenceWidth), 1);
  AppendBigEndian(out, objects_.size(), 8);
  AppendBigEndian(out, root, 8);
  AppendBigEndian(out, tableStart, 8);
  return out;
}

}  // namespace vardell
