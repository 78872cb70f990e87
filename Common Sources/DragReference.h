// What is dragged, as the operations that take a drop ask for it: the drag's pasteboard, and the
// classic flavours of older programs beside it. Implemented by platform/linux/MimeDataDrag and by a
// fake; it stands here, below platform/, since the operations that use it do. Main thread; asking
// for data may wait for the program that the drag comes from.
//
// Every verb but ConformsTo answers a status: 0, or a code of the system's that is handed on as it
// is; what it points to is touched only with 0. Items, and flavours of an item, count from 1.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <cstddef>
#include <cstdint>

namespace vardell {

// Types of a pasteboard's flavours.
inline constexpr char kFileURLFlavor[] = "public.file-url";
inline constexpr char kImageFlavor[] = "public.image";

// Types of classic flavours are four characters.
inline constexpr std::uint32_t kFlavorTypeHFS = 0x68667320;      // 'hfs '
inline constexpr std::uint32_t kFlavorTypeFileURL = 0x6675726c;  // 'furl'

// An 'hfs ' flavour: type, creator and flags of a file, then the record that names it.
inline constexpr qsizetype kHFSFlavorBytes = 80;
inline constexpr qsizetype kHFSFlavorFileSpec = 10;

class DragPasteboard {
 public:
  virtual ~DragPasteboard() = default;
  [[nodiscard]] virtual std::int32_t GetItemIdentifier(int index, std::uint32_t* item) = 0;
  [[nodiscard]] virtual std::int32_t CopyItemFlavors(std::uint32_t item, QStringList* types) = 0;
  [[nodiscard]] virtual std::int32_t CopyItemFlavorData(std::uint32_t item, const QString& type,
                                                        QByteArray* data) = 0;
  virtual bool ConformsTo(const QString& type, const QString& kind) = 0;
};

class DragReference {
 public:
  virtual ~DragReference() = default;
  // Lives as long as the drag.
  [[nodiscard]] virtual std::int32_t GetPasteboard(DragPasteboard** pasteboard) = 0;

  [[nodiscard]] virtual std::int32_t CountDragItems(std::uint16_t* count) = 0;
  [[nodiscard]] virtual std::int32_t GetItemReference(int index, std::uint32_t* item) = 0;
  [[nodiscard]] virtual std::int32_t CountFlavors(std::uint32_t item, std::uint16_t* count) = 0;
  [[nodiscard]] virtual std::int32_t GetFlavorType(std::uint32_t item, int index,
                                                   std::uint32_t* type) = 0;
  [[nodiscard]] virtual std::int32_t GetFlavorDataSize(std::uint32_t item, std::uint32_t type,
                                                       std::size_t* bytes) = 0;
  // At most `room` bytes; the data may have become shorter than it said.
  [[nodiscard]] virtual std::int32_t GetFlavorData(std::uint32_t item, std::uint32_t type,
                                                   std::size_t room, QByteArray* data) = 0;
  // The path of the file that such a record names.
  [[nodiscard]] virtual std::int32_t MakeFSRef(const QByteArray& fileSpec, QString* path) = 0;
};

}  // namespace vardell
