// The binary property-list format ("bplist00"): a table of objects in which containers name their
// members by place, and any object may be named more than once.
//
//   "bplist00", the objects, the table of their offsets, and a trailer of 32 bytes
//
// Both halves work on that table and never on the value that it stands for: reading a hostile file
// costs no more than its bytes, whatever its objects share or however they refer to themselves.
// Who follows references has to bound that. Pure code, for any thread; nothing blocks.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QVariant>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vardell {

// A reference between the objects of a keyed archive: a place in its "$objects".
struct Uid {
  std::uint32_t number = 0;
};

// A place in the table of objects.
using ObjectIndex = std::uint32_t;

class BinaryPropertyListReader {
 public:
  enum class Kind : std::uint8_t {
    False,
    True,
    Integer,
    Real,
    Date,
    Data,
    AsciiText,
    Text,
    Uid,
    Array,
    Dictionary
  };

  // Absent unless every object lies whole within `bytes` (kMaxArchiveBytes at most) and is of one
  // of the kinds above, the objects together are no longer than the room that they share, every
  // reference names an object, and nothing follows or is left between. `bytes` must outlive the
  // reader.
  [[nodiscard]] static std::optional<BinaryPropertyListReader> Open(QByteArrayView bytes);

  ObjectIndex Root() const { return root_; }
  Kind KindOf(ObjectIndex index) const { return At(index).kind; }

  // A bool, number, date, data or text, of the types that PropertyList.h names. Absent for other
  // kinds, and for text, a number or a date that is none.
  [[nodiscard]] std::optional<QVariant> Scalar(ObjectIndex index) const;

  // What Scalar copies of text (two bytes for a unit) or data; 0 for other kinds.
  std::uint64_t TextBytes(ObjectIndex index) const;

  // Whether it is the text `ascii`. Copies nothing.
  bool IsText(ObjectIndex index, QByteArrayView ascii) const;

  // Absent for other kinds, and for a number above 32 bits.
  [[nodiscard]] std::optional<Uid> UidAt(ObjectIndex index) const;

  // The members of an array, or the entries of a dictionary; 0 for other kinds.
  std::uint32_t Count(ObjectIndex index) const;

  // `member` is below the container's Count.
  ObjectIndex Element(ObjectIndex array, std::uint32_t member) const;

  // The value of the first entry with this key, which is ASCII. Absent without one, and where
  // `dictionary` is of another kind. Walks through the entries.
  [[nodiscard]] std::optional<ObjectIndex> Find(ObjectIndex dictionary, QByteArrayView key) const;

 private:
  struct Object {
    Kind kind;
    std::size_t start;    // of what follows the marker and the count
    std::uint64_t count;  // bytes, UTF-16 units, members or entries
  };

  BinaryPropertyListReader(QByteArrayView bytes, std::size_t tableStart, std::uint8_t offsetBytes,
                           std::uint8_t referenceBytes)
      : bytes_(bytes),
        tableStart_(tableStart),
        offsetBytes_(offsetBytes),
        referenceBytes_(referenceBytes) {}

  bool ObjectsFit(std::uint64_t count) const;
  bool ReferencesFit(const Object& object, std::uint64_t objects) const;
  std::optional<Object> Parse(std::uint64_t offset) const;
  std::uint64_t BytesOf(const Object& object) const;
  std::uint64_t Unsigned(std::size_t start, std::size_t width) const;
  Object At(ObjectIndex index) const;
  ObjectIndex Reference(const Object& container, std::uint64_t place) const;
  std::optional<QVariant> IntegerAt(const Object& object) const;
  double RealAt(const Object& object) const;
  QByteArrayView BytesAt(const Object& object) const;
  std::optional<QVariant> TextAt(const Object& object) const;

  QByteArrayView bytes_;
  std::size_t tableStart_;
  std::uint8_t offsetBytes_;
  std::uint8_t referenceBytes_;
  ObjectIndex root_ = 0;
};

// Objects are added one by one, members before their containers; each gives its place. Nothing is
// shared unless its place is used twice. When the bytes exceed kMaxArchiveBytes nothing more is
// kept, and Finish is absent.
class BinaryPropertyListWriter {
 public:
  ObjectIndex AddBoolean(bool value);
  ObjectIndex AddInteger(std::int64_t value);
  ObjectIndex AddUnsigned(std::uint64_t value);
  ObjectIndex AddReal(double value);
  ObjectIndex AddData(QByteArrayView data);
  ObjectIndex AddText(QStringView text);  // well-formed UTF-16
  ObjectIndex AddUid(Uid uid);
  ObjectIndex AddArray(std::span<const ObjectIndex> members);
  ObjectIndex AddDictionary(std::span<const ObjectIndex> keys, std::span<const ObjectIndex> values);

  [[nodiscard]] std::optional<QByteArray> Finish(ObjectIndex root) const;

 private:
  // From `start` in bytes_ up to the next object's: the marker, the count, and a scalar's bytes.
  // They are followed by a container's references, from `firstReference` in references_.
  struct Object {
    std::uint32_t start;
    std::uint32_t firstReference;
  };

  ObjectIndex Begin();
  void Counted(std::uint8_t marker, std::uint64_t count);
  void BigEndian(std::uint64_t value, int width);
  void Refer(std::span<const ObjectIndex> places);
  bool IsFull() const;

  QByteArray bytes_;
  std::vector<ObjectIndex> references_;
  std::vector<Object> objects_;
};

}  // namespace vardell
