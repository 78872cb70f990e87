// A drag that is told what it holds and which calls fail, and records what was asked, in order:
// "CopyItemFlavorData public.png", "GetFlavorData 2 furl".
#pragma once

#include <QPair>
#include <QVector>
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "Common Sources/DragReference.h"

namespace vardell {

class FakeDrag : public DragReference, private DragPasteboard {
 public:
  static constexpr std::int32_t kNoSuchFlavor = -25133;

  struct Flavor {
    std::uint32_t type;
    QByteArray data;
    std::size_t missing = 0;  // bytes that its size tells of and its data lacks
  };

  QVector<QPair<QString, QByteArray>> pasteboard;  // its item 1
  std::vector<std::vector<Flavor>> items;
  std::map<QByteArray, QString> files;  // by the record; its zeros at the end left out
  std::map<std::string, std::int32_t> failures;
  std::vector<std::string> calls;

  std::int32_t GetPasteboard(DragPasteboard** out) override {
    *out = this;
    return Note("GetPasteboard");
  }
  std::int32_t CountDragItems(std::uint16_t* count) override {
    *count = static_cast<std::uint16_t>(items.size());
    return Note("CountDragItems");
  }
  std::int32_t GetItemReference(int index, std::uint32_t* item) override {
    *item = static_cast<std::uint32_t>(index);
    return Note("GetItemReference " + std::to_string(index));
  }
  std::int32_t CountFlavors(std::uint32_t item, std::uint16_t* count) override {
    *count = static_cast<std::uint16_t>(items.at(item - 1).size());
    return Note("CountFlavors " + std::to_string(item));
  }
  std::int32_t GetFlavorType(std::uint32_t item, int index, std::uint32_t* type) override {
    *type = items.at(item - 1).at(static_cast<std::size_t>(index) - 1).type;
    return Note("GetFlavorType " + std::to_string(item) + " " + std::to_string(index));
  }
  std::int32_t GetFlavorDataSize(std::uint32_t item, std::uint32_t type,
                                 std::size_t* bytes) override {
    const Flavor& flavor = Find(item, type);
    *bytes = static_cast<std::size_t>(flavor.data.size()) + flavor.missing;
    return Note("GetFlavorDataSize " + Name(item, type));
  }
  std::int32_t GetFlavorData(std::uint32_t item, std::uint32_t type, std::size_t room,
                             QByteArray* data) override {
    *data = Find(item, type).data.left(static_cast<qsizetype>(room));
    return Note("GetFlavorData " + Name(item, type));
  }
  std::int32_t MakeFSRef(const QByteArray& fileSpec, QString* path) override {
    const auto found = files.find(QByteArray(fileSpec.constData()));
    if (found == files.end()) return -43;
    *path = found->second;
    return Note("MakeFSRef");
  }

 private:
  std::int32_t GetItemIdentifier(int index, std::uint32_t* item) override {
    *item = 17;
    return Note("GetItemIdentifier " + std::to_string(index));
  }
  std::int32_t CopyItemFlavors(std::uint32_t item, QStringList* types) override {
    for (const auto& [type, data] : pasteboard) types->append(type);
    return Note("CopyItemFlavors", item);
  }
  std::int32_t CopyItemFlavorData(std::uint32_t item, const QString& type,
                                  QByteArray* data) override {
    const std::int32_t status = Note("CopyItemFlavorData " + type.toStdString(), item);
    const auto found = std::find_if(pasteboard.cbegin(), pasteboard.cend(),
                                    [&](const auto& flavor) { return flavor.first == type; });
    if (found == pasteboard.cend()) return kNoSuchFlavor;
    *data = found->second;
    return status;
  }
  bool ConformsTo(const QString& type, const QString& kind) override {
    return kind == QLatin1String(kImageFlavor) &&
           (type == QLatin1String("public.png") || type == QLatin1String("public.tiff"));
  }

  std::int32_t Note(const std::string& call, std::uint32_t item = 17) {
    calls.push_back(call);
    const auto failure = failures.find(call);
    if (item != 17) return -25132;
    return failure == failures.end() ? 0 : failure->second;
  }
  const Flavor& Find(std::uint32_t item, std::uint32_t type) const {
    const std::vector<Flavor>& flavors = items.at(item - 1);
    return *std::find_if(flavors.begin(), flavors.end(),
                         [&](const Flavor& flavor) { return flavor.type == type; });
  }
  static std::string Name(std::uint32_t item, std::uint32_t type) {
    std::string name = std::to_string(item) + " ";
    for (int shift = 24; shift >= 0; shift -= 8) name += static_cast<char>(type >> shift);
    return name;
  }
};

}  // namespace vardell
