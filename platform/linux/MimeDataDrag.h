// A drag as Qt tells of it: one item, whose flavours are its MIME formats, and "public.file-url"
// where the first URL of its text/uri-list names a file. Formats of the kind image/* are images.
//
// Drags of X11 have no classic flavours: no classic item is counted, and the calls about one answer
// that there is none. Main thread; asking for data waits for the program that the drag comes from,
// as long as Qt does, and takes whatever that one gives.
#pragma once

#include <QMimeData>
#include <optional>

#include "Common Sources/DragReference.h"

namespace vardell {

// Statuses of the pasteboard and of the classic drag.
inline constexpr std::int32_t kPasteboardNoSuchIndex = -25131;
inline constexpr std::int32_t kPasteboardNoSuchFlavor = -25133;
inline constexpr std::int32_t kDragNoSuchItem = -1851;

class MimeDataDrag : public DragReference, private DragPasteboard {
 public:
  // `mimeData` outlives this.
  explicit MimeDataDrag(const QMimeData& mimeData) : mimeData_(mimeData) {}

  std::int32_t GetPasteboard(DragPasteboard** pasteboard) override;
  std::int32_t CountDragItems(std::uint16_t* count) override;
  std::int32_t GetItemReference(int index, std::uint32_t* item) override;
  std::int32_t CountFlavors(std::uint32_t item, std::uint16_t* count) override;
  std::int32_t GetFlavorType(std::uint32_t item, int index, std::uint32_t* type) override;
  std::int32_t GetFlavorDataSize(std::uint32_t item, std::uint32_t type,
                                 std::size_t* bytes) override;
  std::int32_t GetFlavorData(std::uint32_t item, std::uint32_t type, std::size_t room,
                             QByteArray* data) override;
  std::int32_t MakeFSRef(const QByteArray& fileSpec, QString* path) override;

 private:
  std::int32_t GetItemIdentifier(int index, std::uint32_t* item) override;
  std::int32_t CopyItemFlavors(std::uint32_t item, QStringList* types) override;
  std::int32_t CopyItemFlavorData(std::uint32_t item, const QString& type,
                                  QByteArray* data) override;
  bool ConformsTo(const QString& type, const QString& kind) override;
  std::optional<QByteArray> FileURL() const;

  const QMimeData& mimeData_;
};

}  // namespace vardell
