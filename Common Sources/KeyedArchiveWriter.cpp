#include <QHash>
#include <array>
#include <bit>
#include <initializer_list>
#include <utility>
#include <vector>

#include "Common Sources/ArchiveDates.h"
#include "Common Sources/ArchiveSize.h"
#include "Common Sources/BinaryPropertyList.h"
#include "Common Sources/Caps.h"
#include "Common Sources/KeyedArchive.h"

namespace vardell {

namespace {

constexpr std::int64_t kVersion = 100000;
constexpr char kArchiver[] = "NSKeyedArchiver";
constexpr char kNull[] = "$null";

class Writer {
 public:
  std::optional<QByteArray> Archive(const QVariant& root);

 private:
  using Number = std::uint32_t;  // a place in "$objects"

  std::optional<Number> Object(const QVariant& value, int depth);
  std::optional<Number> Scalar(const QVariant& value);
  std::optional<Number> Array(const QVariantList& list, int depth);
  std::optional<Number> Dictionary(const QVariantMap& map, int depth);
  std::optional<Number> Text(const QString& text);
  std::optional<Number> Data(const QByteArray& data);
  std::optional<Number> Date(const QDateTime& date);
  template <typename Add>
  Number Shared(int kind, std::uint64_t bits, Add add);
  Number Append(ObjectIndex object);
  Number Class(const char* name);
  ObjectIndex Key(const char* name);
  ObjectIndex Reference(Number number);
  ObjectIndex References(const std::vector<Number>& numbers);
  ObjectIndex Record(std::initializer_list<std::pair<const char*, ObjectIndex>> members);

  BinaryPropertyListWriter plist_;
  std::vector<ObjectIndex> objects_;              // "$objects"
  std::vector<std::optional<ObjectIndex>> uids_;  // the UID of each, where it has one
  QHash<QString, Number> texts_;
  QHash<std::pair<int, quint64>, Number> numbers_;  // by type and bits
  QHash<QByteArray, Number> classes_;
  QHash<QByteArray, ObjectIndex> keys_;
  ArchiveSize size_;
};

Writer::Number Writer::Append(ObjectIndex object) {
  objects_.push_back(object);
  uids_.emplace_back();
  return static_cast<Number>(objects_.size() - 1);
}

ObjectIndex Writer::Key(const char* name) {
  const auto known = keys_.constFind(name);
  if (known != keys_.constEnd()) return *known;
  return *keys_.insert(name, plist_.AddText(QString::fromLatin1(name)));
}

ObjectIndex Writer::Record(std::initializer_list<std::pair<const char*, ObjectIndex>> members) {
  std::vector<ObjectIndex> keys, values;
  for (const auto& [key, value] : members) {
    keys.push_back(Key(key));
    values.push_back(value);
  }
  return plist_.AddDictionary(keys, values);
}

Writer::Number Writer::Class(const char* name) {
  const auto known = classes_.constFind(name);
  if (known != classes_.constEnd()) return *known;
  const std::array<ObjectIndex, 2> lineage{Key(name), Key("NSObject")};
  const Number number =
      Append(Record({{"$classname", Key(name)}, {"$classes", plist_.AddArray(lineage)}}));
  return *classes_.insert(name, number);
}

ObjectIndex Writer::Reference(Number number) {
  if (!uids_[number]) uids_[number] = plist_.AddUid({number});
  return *uids_[number];
}

ObjectIndex Writer::References(const std::vector<Number>& numbers) {
  std::vector<ObjectIndex> uids;
  uids.reserve(numbers.size());
  for (const Number number : numbers) uids.push_back(Reference(number));
  return plist_.AddArray(uids);
}

template <typename Add>
Writer::Number Writer::Shared(int kind, std::uint64_t bits, Add add) {
  const std::pair key(kind, quint64{bits});
  const auto known = numbers_.constFind(key);
  if (known != numbers_.constEnd()) return *known;
  return *numbers_.insert(key, Append(add()));
}

std::optional<Writer::Number> Writer::Text(const QString& text) {
  if (!size_.Add({0, 2 * static_cast<std::uint64_t>(text.size())})) return std::nullopt;
  const auto known = texts_.constFind(text);
  if (known != texts_.constEnd()) return *known;
  if (!text.isValidUtf16()) return std::nullopt;
  return *texts_.insert(text, Append(plist_.AddText(text)));
}

std::optional<Writer::Number> Writer::Data(const QByteArray& data) {
  if (!size_.Add({0, static_cast<std::uint64_t>(data.size())})) return std::nullopt;
  return Append(plist_.AddData(data));
}

std::optional<Writer::Number> Writer::Date(const QDateTime& date) {
  const auto seconds = ReferenceSecondsFromDate(date);
  if (!seconds) return std::nullopt;
  const ObjectIndex uid = Reference(Class("NSDate"));
  return Append(Record({{"NS.time", plist_.AddReal(*seconds)}, {"$class", uid}}));
}

std::optional<Writer::Number> Writer::Array(const QVariantList& list, int depth) {
  if (depth > kMaxPropertyListDepth) return std::nullopt;
  const Number number = Append(0);
  std::vector<Number> members;
  for (const QVariant& value : list) {
    const auto member = Object(value, depth);
    if (!member) return std::nullopt;
    members.push_back(*member);
  }
  const ObjectIndex uid = Reference(Class("NSArray"));
  objects_[number] = Record({{"NS.objects", References(members)}, {"$class", uid}});
  return number;
}

std::optional<Writer::Number> Writer::Dictionary(const QVariantMap& map, int depth) {
  if (depth > kMaxPropertyListDepth) return std::nullopt;
  const Number number = Append(0);
  std::vector<Number> keys, members;
  for (auto entry = map.begin(); entry != map.end(); ++entry) {
    if (!size_.Add({1, 0})) return std::nullopt;
    const auto key = Text(entry.key());
    if (!key) return std::nullopt;
    const auto member = Object(entry.value(), depth);
    if (!member) return std::nullopt;
    keys.push_back(*key);
    members.push_back(*member);
  }
  const ObjectIndex uid = Reference(Class("NSDictionary"));
  const ObjectIndex keyList = References(keys);
  objects_[number] =
      Record({{"NS.keys", keyList}, {"NS.objects", References(members)}, {"$class", uid}});
  return number;
}

std::optional<Writer::Number> Writer::Scalar(const QVariant& value) {
  switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::LongLong: {
      const qlonglong number = value.toLongLong();
      return Shared(QMetaType::LongLong, static_cast<std::uint64_t>(number),
                    [&] { return plist_.AddInteger(number); });
    }
    case QMetaType::UInt:
    case QMetaType::ULongLong: {
      const qulonglong number = value.toULongLong();
      return Shared(QMetaType::ULongLong, number, [&] { return plist_.AddUnsigned(number); });
    }
    case QMetaType::Double: {
      const double number = value.toDouble();
      return Shared(QMetaType::Double, std::bit_cast<std::uint64_t>(number),
                    [&] { return plist_.AddReal(number); });
    }
    case QMetaType::Bool: {
      const bool isTrue = value.toBool();
      return Shared(QMetaType::Bool, isTrue, [&] { return plist_.AddBoolean(isTrue); });
    }
    case QMetaType::QString:
      return Text(value.toString());
    case QMetaType::QByteArray:
      return Data(value.toByteArray());
    case QMetaType::QDateTime:
      return Date(value.toDateTime());
    default:
      return std::nullopt;
  }
}

std::optional<Writer::Number> Writer::Object(const QVariant& value, int depth) {
  if (!size_.Add({1, 0})) return std::nullopt;
  switch (value.typeId()) {
    case QMetaType::QVariantMap:
      return Dictionary(value.toMap(), depth + 1);
    case QMetaType::QVariantList:
      return Array(value.toList(), depth + 1);
    default:
      return Scalar(value);
  }
}

std::optional<QByteArray> Writer::Archive(const QVariant& root) {
  Append(plist_.AddText(QString::fromLatin1(kNull)));
  const auto number = Object(root, 0);
  if (!number) return std::nullopt;
  const ObjectIndex archiver = plist_.AddText(QString::fromLatin1(kArchiver));
  const ObjectIndex top = Record({{"root", Reference(*number)}});
  const ObjectIndex version = plist_.AddInteger(kVersion);
  return plist_.Finish(Record({{"$version", version},
                               {"$archiver", archiver},
                               {"$top", top},
                               {"$objects", plist_.AddArray(objects_)}}));
}

}  // namespace

std::optional<QByteArray> WriteKeyedArchive(const QVariant& value) {
  return Writer().Archive(value);
}

}  // namespace vardell
