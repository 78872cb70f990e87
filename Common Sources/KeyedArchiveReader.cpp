#include <QHash>
#include <algorithm>
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

// The members of "$objects" that are no value's: "$null", and the classes.
constexpr std::uint64_t kMaxOtherObjects = 16;

class Reader {
 public:
  explicit Reader(const BinaryPropertyListReader& plist) : plist_(plist) {}
  std::optional<QVariant> Archive();

 private:
  using Kind = BinaryPropertyListReader::Kind;
  enum class Class : std::uint8_t { Unknown, Array, Dictionary, Date, Text, Data };

  // One of "$objects".
  struct Object {
    QVariant value;
    ArchiveSize size{1, 0};
    int height = 0;  // of the containers in it, itself included
    bool isRead = false;
  };

  bool FindObjects();
  const Object* Resolve(ObjectIndex reference, int depth);
  bool Read(ObjectIndex index, int depth, Object* object);
  bool ReadScalar(ObjectIndex index, Object* object);
  bool ReadInstance(ObjectIndex index, int depth, Object* object);
  bool ReadArray(ObjectIndex index, int depth, Object* object);
  bool ReadDictionary(ObjectIndex index, int depth, Object* object);
  bool ReadDate(ObjectIndex index, Object* object);
  bool ReadWrapped(ObjectIndex index, const char* key, QMetaType::Type type, Object* object);
  bool Include(const Object& member, Object* container) const;
  std::optional<ObjectIndex> List(ObjectIndex index, const char* key);
  std::optional<std::uint32_t> Number(ObjectIndex reference) const;
  Class ClassOf(ObjectIndex reference);
  Class NamedClass(ObjectIndex index) const;

  const BinaryPropertyListReader& plist_;
  ObjectIndex root_ = 0;
  ObjectIndex list_ = 0;
  std::vector<Object> objects_;
  QHash<quint32, Class> classes_;

  // Of what was built so far, each object once: never more than the root is with all sharing
  // undone, so that what exceeds the bounds is refused before it is built.
  ArchiveSize built_;
};

bool Reader::FindObjects() {
  const ObjectIndex archive = plist_.Root();
  if (plist_.Count(archive) != 4) return false;
  const auto version = plist_.Find(archive, "$version");
  const auto archiver = plist_.Find(archive, "$archiver");
  const auto top = plist_.Find(archive, "$top");
  const auto objects = plist_.Find(archive, "$objects");
  if (!version || !archiver || !top || !objects) return false;
  if (plist_.KindOf(*version) != Kind::Integer || !plist_.IsText(*archiver, kArchiver))
    return false;
  if (plist_.Scalar(*version) != QVariant(qlonglong{kVersion})) return false;
  if (plist_.KindOf(*objects) != Kind::Array || plist_.Count(*top) != 1) return false;
  const auto root = plist_.Find(*top, "root");
  const std::uint32_t count = plist_.Count(*objects);
  if (!root || count == 0 || count > kMaxArchiveNodes + kMaxOtherObjects) return false;
  if (!plist_.IsText(plist_.Element(*objects, 0), kNull)) return false;
  root_ = *root;
  list_ = *objects;
  objects_.resize(count);
  return true;
}

std::optional<std::uint32_t> Reader::Number(ObjectIndex reference) const {
  const auto uid = plist_.UidAt(reference);
  if (!uid || uid->number == 0 || uid->number >= objects_.size()) return std::nullopt;
  return uid->number;
}

// Null for a reference that names no value. A circle ends as what is too deep.
const Reader::Object* Reader::Resolve(ObjectIndex reference, int depth) {
  const auto number = Number(reference);
  if (!number) return nullptr;
  Object& object = objects_[*number];
  if (object.isRead) return &object;
  if (!Read(plist_.Element(list_, *number), depth, &object)) return nullptr;
  object.isRead = true;
  return &object;
}

bool Reader::Read(ObjectIndex index, int depth, Object* object) {
  switch (plist_.KindOf(index)) {
    case Kind::Dictionary:
      return ReadInstance(index, depth, object);
    case Kind::Array:
    case Kind::Uid:
      return false;
    default:
      return ReadScalar(index, object);
  }
}

bool Reader::ReadScalar(ObjectIndex index, Object* object) {
  const ArchiveSize text{0, plist_.TextBytes(index)};
  if (!built_.Add(text) || !object->size.Add(text)) return false;
  const auto value = plist_.Scalar(index);
  if (!value) return false;
  object->value = *value;
  return true;
}

// Many of "$objects" may be one dictionary of the file, and as long as it pleases: its members are
// counted before they are walked through.
bool Reader::ReadInstance(ObjectIndex index, int depth, Object* object) {
  const std::uint32_t members = plist_.Count(index);
  if (members != 2 && members != 3) return false;
  const auto named = plist_.Find(index, "$class");
  const Class type = named ? ClassOf(*named) : Class::Unknown;
  if ((members == 3) != (type == Class::Dictionary)) return false;
  switch (type) {
    case Class::Array:
      return ReadArray(index, depth + 1, object);
    case Class::Dictionary:
      return ReadDictionary(index, depth + 1, object);
    case Class::Date:
      return ReadDate(index, object);
    case Class::Text:
      return ReadWrapped(index, "NS.string", QMetaType::QString, object);
    case Class::Data:
      return ReadWrapped(index, "NS.data", QMetaType::QByteArray, object);
    default:
      return false;
  }
}

bool Reader::ReadDate(ObjectIndex index, Object* object) {
  const auto time = plist_.Find(index, "NS.time");
  if (!time) return false;
  const Kind kind = plist_.KindOf(*time);
  if (kind != Kind::Real && kind != Kind::Integer) return false;
  const auto seconds = plist_.Scalar(*time);
  const auto date = seconds ? DateFromReferenceSeconds(seconds->toDouble()) : std::nullopt;
  if (!date) return false;
  object->value = *date;
  return true;
}

bool Reader::ReadWrapped(ObjectIndex index, const char* key, QMetaType::Type type, Object* object) {
  const auto content = plist_.Find(index, key);
  return content && ReadScalar(*content, object) && object->value.typeId() == type;
}

// An array among an object's members, its own members paid for.
std::optional<ObjectIndex> Reader::List(ObjectIndex index, const char* key) {
  const auto list = plist_.Find(index, key);
  if (!list || plist_.KindOf(*list) != Kind::Array) return std::nullopt;
  if (!built_.Add({plist_.Count(*list), 0})) return std::nullopt;
  return list;
}

bool Reader::Include(const Object& member, Object* container) const {
  container->height = std::max(container->height, member.height + 1);
  return container->height <= kMaxPropertyListDepth && container->size.Add(member.size);
}

bool Reader::ReadArray(ObjectIndex index, int depth, Object* object) {
  const auto members = List(index, "NS.objects");
  if (!members || depth > kMaxPropertyListDepth) return false;
  const std::uint32_t count = plist_.Count(*members);
  QVariantList list;
  list.reserve(static_cast<qsizetype>(count));
  object->height = 1;
  for (std::uint32_t i = 0; i < count; ++i) {
    const Object* member = Resolve(plist_.Element(*members, i), depth);
    if (member == nullptr || !Include(*member, object)) return false;
    list.append(member->value);
  }
  object->value = list;
  return true;
}

bool Reader::ReadDictionary(ObjectIndex index, int depth, Object* object) {
  const auto keys = List(index, "NS.keys");
  const auto members = List(index, "NS.objects");
  if (!keys || !members || depth > kMaxPropertyListDepth) return false;
  const std::uint32_t count = plist_.Count(*members);
  if (plist_.Count(*keys) != count) return false;
  QVariantMap map;
  object->height = 1;
  for (std::uint32_t i = 0; i < count; ++i) {
    const Object* key = Resolve(plist_.Element(*keys, i), depth);
    if (key == nullptr || key->value.typeId() != QMetaType::QString) return false;
    const Object* member = Resolve(plist_.Element(*members, i), depth);
    if (member == nullptr || !object->size.Add(key->size) || !Include(*member, object))
      return false;
    map.insert(key->value.toString(), member->value);
  }
  if (static_cast<std::uint64_t>(map.size()) != count) return false;
  object->value = map;
  return true;
}

Reader::Class Reader::NamedClass(ObjectIndex index) const {
  static constexpr std::pair<const char*, Class> kClasses[] = {
      {"NSArray", Class::Array},
      {"NSMutableArray", Class::Array},
      {"NSDictionary", Class::Dictionary},
      {"NSMutableDictionary", Class::Dictionary},
      {"NSDate", Class::Date},
      {"NSString", Class::Text},
      {"NSMutableString", Class::Text},
      {"NSData", Class::Data},
      {"NSMutableData", Class::Data},
  };
  const std::uint32_t members = plist_.Count(index);
  if (members != 2 && !(members == 3 && plist_.Find(index, "$classhints"))) return Class::Unknown;
  const auto name = plist_.Find(index, "$classname");
  const auto lineage = plist_.Find(index, "$classes");
  if (!name || !lineage || plist_.KindOf(*lineage) != Kind::Array) return Class::Unknown;
  if (plist_.Count(*lineage) == 0) return Class::Unknown;
  for (const auto& [known, type] : kClasses) {
    if (!plist_.IsText(*name, known)) continue;
    return plist_.IsText(plist_.Element(*lineage, 0), known) ? type : Class::Unknown;
  }
  return Class::Unknown;
}

Reader::Class Reader::ClassOf(ObjectIndex reference) {
  const auto number = Number(reference);
  if (!number) return Class::Unknown;
  const auto known = classes_.constFind(*number);
  if (known != classes_.constEnd()) return *known;
  return *classes_.insert(*number, NamedClass(plist_.Element(list_, *number)));
}

std::optional<QVariant> Reader::Archive() {
  if (!FindObjects()) return std::nullopt;
  const Object* root = Resolve(root_, 0);
  if (root == nullptr) return std::nullopt;
  return root->value;
}

}  // namespace

std::optional<QVariant> ReadKeyedArchive(const QByteArray& bytes) {
  const auto plist = BinaryPropertyListReader::Open(bytes);
  if (!plist) return std::nullopt;
  return Reader(*plist).Archive();
}

}  // namespace vardell
