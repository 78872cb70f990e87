#include "platform/linux/MimeDataDrag.h"

#include <QUrl>

#include "Common Sources/FileSystem.h"

namespace vardell {

namespace {

constexpr std::uint32_t kOnlyItem = 1;

// Lines that begin with "#" are comments.
QByteArray FirstURL(const QByteArray& uriList) {
  for (qsizetype begin = 0; begin < uriList.size();) {
    const qsizetype found = uriList.indexOf('\n', begin);
    const qsizetype end = found < 0 ? uriList.size() : found;
    const QByteArray line = uriList.mid(begin, end - begin).trimmed();
    if (!line.isEmpty() && !line.startsWith('#')) return line;
    begin = end + 1;
  }
  return {};
}

}  // namespace

// Encoded anew: programs put blanks and letters beyond ASCII into it as they are.
std::optional<QByteArray> MimeDataDrag::FileURL() const {
  const QUrl url = QUrl::fromEncoded(FirstURL(mimeData_.data(QStringLiteral("text/uri-list"))));
  if (!url.isLocalFile()) return std::nullopt;
  return url.toEncoded();
}

std::int32_t MimeDataDrag::GetPasteboard(DragPasteboard** pasteboard) {
  *pasteboard = this;
  return 0;
}

std::int32_t MimeDataDrag::GetItemIdentifier(int index, std::uint32_t* item) {
  if (index != 1 || mimeData_.formats().isEmpty()) return kPasteboardNoSuchIndex;
  *item = kOnlyItem;
  return 0;
}

std::int32_t MimeDataDrag::CopyItemFlavors(std::uint32_t /*item*/, QStringList* types) {
  *types = mimeData_.formats();
  if (FileURL()) types->prepend(QLatin1String(kFileURLFlavor));
  return 0;
}

std::int32_t MimeDataDrag::CopyItemFlavorData(std::uint32_t /*item*/, const QString& type,
                                              QByteArray* data) {
  if (type == QLatin1String(kFileURLFlavor)) {
    std::optional<QByteArray> url = FileURL();
    if (!url) return kPasteboardNoSuchFlavor;
    *data = *std::move(url);
    return 0;
  }
  QByteArray bytes = mimeData_.data(type);
  if (bytes.isEmpty()) return kPasteboardNoSuchFlavor;
  *data = std::move(bytes);
  return 0;
}

bool MimeDataDrag::ConformsTo(const QString& type, const QString& kind) {
  return kind == QLatin1String(kImageFlavor) &&
         type.startsWith(QLatin1String("image/"), Qt::CaseInsensitive);
}

std::int32_t MimeDataDrag::CountDragItems(std::uint16_t* count) {
  *count = 0;
  return 0;
}

std::int32_t MimeDataDrag::GetItemReference(int /*index*/, std::uint32_t* /*item*/) {
  return kDragNoSuchItem;
}

std::int32_t MimeDataDrag::CountFlavors(std::uint32_t /*item*/, std::uint16_t* /*count*/) {
  return kDragNoSuchItem;
}

std::int32_t MimeDataDrag::GetFlavorType(std::uint32_t /*item*/, int /*index*/,
                                         std::uint32_t* /*type*/) {
  return kDragNoSuchItem;
}

std::int32_t MimeDataDrag::GetFlavorDataSize(std::uint32_t /*item*/, std::uint32_t /*type*/,
                                             std::size_t* /*bytes*/) {
  return kDragNoSuchItem;
}

std::int32_t MimeDataDrag::GetFlavorData(std::uint32_t /*item*/, std::uint32_t /*type*/,
                                         std::size_t /*room*/, QByteArray* /*data*/) {
  return kDragNoSuchItem;
}

std::int32_t MimeDataDrag::MakeFSRef(const QByteArray& /*fileSpec*/, QString* /*path*/) {
  return kFileNotFound;
}

}  // namespace vardell
