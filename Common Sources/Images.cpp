#include "Common Sources/Images.h"

#include <sys/stat.h>

#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>
#include <algorithm>
#include <optional>

#include "Common Sources/Caps.h"
#include "Common Sources/DragReference.h"
#include "Common Sources/FileSystem.h"
#include "Common Sources/ImageDecoding.h"

// Expands to declarations that must not stand in a namespace.
static void InitImageResource() {
  Q_INIT_RESOURCE(vardell_images);
}

namespace vardell {

namespace {

constexpr char kPng[] = "PNG";

// Absent where the program has none of that name.
std::optional<QString> ResourcePath(const QString& name) {
  InitImageResource();
  const QString path = QStringLiteral(":/images/") + name;
  if (name.contains(u'/') || !QFileInfo(path).isFile()) return std::nullopt;
  return path;
}

QImage DecodeResource(const QString& path) {
  QFile file(path);
  return file.open(QIODevice::ReadOnly) ? DecodeImage(file.readAll(), kPng) : QImage();
}

template <typename Decode>
QImage DecodeAgainIfNull(const Decode& decode) {
  const QImage image = decode();
  return image.isNull() ? decode() : image;
}

std::optional<QString> FSRefOfURL(const QUrl& url) {
  const std::optional<QByteArray> path = NativePath(url);
  struct stat facts = {};
  if (!path || ::stat(path->constData(), &facts) != 0) return std::nullopt;
  return QString::fromUtf8(*path);
}

// Strictly: a blank or a lone per cent sign makes it none. Escapes are UTF-8 in any case.
std::optional<QUrl> MakeURL(const QByteArray& bytes, QStringDecoder decoder) {
  if (!decoder.isValid() || static_cast<std::size_t>(bytes.size()) > kMaxDroppedUrlBytes) {
    return std::nullopt;
  }
  const QString text = decoder.decode(bytes);
  const QUrl url(text, QUrl::StrictMode);
  if (decoder.hasError() || !url.isValid()) return std::nullopt;
  return url;
}

// What a step of a drop came to. A final status is the answer, whatever else was dropped.
struct Step {
  std::int32_t status = 0;
  bool isFinal = false;
};

Step Final(std::int32_t status) {
  return {status, true};
}

std::int32_t LoadFromFileURLFlavor(const QByteArray& bytes, QImage* out) {
  const std::optional<QUrl> url = MakeURL(bytes, QStringDecoder("macintosh"));
  return url ? LoadImageFromURL(*url, out) : kImageBadParameter;
}

Step LoadFromPasteboard(DragReference& drag, QImage* out) {
  DragPasteboard* pasteboard = nullptr;
  if (const auto status = drag.GetPasteboard(&pasteboard)) return Final(status);
  std::uint32_t item = 0;
  if (const auto status = pasteboard->GetItemIdentifier(1, &item)) return Final(status);
  QByteArray data;
  if (pasteboard->CopyItemFlavorData(item, QLatin1String(kFileURLFlavor), &data) == 0) {
    return Final(LoadFromFileURLFlavor(data, out));
  }
  QStringList types;
  if (const auto status = pasteboard->CopyItemFlavors(item, &types)) return Final(status);
  const auto image = std::find_if(types.cbegin(), types.cend(), [&](const QString& type) {
    return pasteboard->ConformsTo(type, QLatin1String(kImageFlavor));
  });
  if (image == types.cend()) return {kImageBadParameter};
  if (const auto status = pasteboard->CopyItemFlavorData(item, *image, &data)) return Final(status);
  return {LoadImageFromData(data, out)};
}

Step LoadFromFileRecord(DragReference& drag, std::uint32_t item, QImage* out) {
  std::size_t size = 0;
  if (const auto status = drag.GetFlavorDataSize(item, kFlavorTypeHFS, &size)) return Final(status);
  if (size != kHFSFlavorBytes) return {kImageBadParameter};
  QByteArray record;
  if (const auto status = drag.GetFlavorData(item, kFlavorTypeHFS, size, &record)) {
    return Final(status);
  }
  if (record.size() != kHFSFlavorBytes) return {kImageBadParameter};
  QString path;
  const std::int32_t status = drag.MakeFSRef(record.mid(kHFSFlavorFileSpec), &path);
  return {status == 0 ? LoadImageFromFSRef(path, out) : status};
}

Step LoadFromClassicURL(DragReference& drag, std::uint32_t item, QImage* out) {
  std::size_t size = 0;
  if (const auto status = drag.GetFlavorDataSize(item, kFlavorTypeFileURL, &size)) {
    return Final(status);
  }
  if (size > kMaxDroppedUrlBytes) return Final(kImageNoMemory);
  QByteArray bytes;
  if (const auto status = drag.GetFlavorData(item, kFlavorTypeFileURL, size, &bytes)) {
    return Final(status);
  }
  const std::optional<QUrl> url =
      MakeURL(bytes, QStringDecoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless));
  if (!url) return {kImageNoMemory};
  const std::int32_t status = LoadImageFromURL(*url, out);
  return {status, status != 0};
}

// `before` is the status so far, which other flavours leave as it is.
Step LoadFromFlavor(DragReference& drag, std::uint32_t item, int index, std::int32_t before,
                    QImage* out) {
  std::uint32_t type = 0;
  if (const auto status = drag.GetFlavorType(item, index, &type)) return Final(status);
  switch (type) {
    case kFlavorTypeHFS:
      return LoadFromFileRecord(drag, item, out);
    case kFlavorTypeFileURL:
      return LoadFromClassicURL(drag, item, out);
    default:
      return {before};
  }
}

Step LoadFromItem(DragReference& drag, int index, std::int32_t before, QImage* out) {
  std::uint32_t item = 0;
  if (const auto status = drag.GetItemReference(index, &item)) return Final(status);
  std::uint16_t count = 0;
  if (const auto status = drag.CountFlavors(item, &count)) return Final(status);
  Step step{before};
  for (int flavor = 1; flavor <= count && !step.isFinal; ++flavor) {
    step = LoadFromFlavor(drag, item, flavor, step.status, out);
  }
  return step;
}

}  // namespace

QImage CopyBundlePNGImage(const QString& name) {
  const std::optional<QString> path = ResourcePath(name + QStringLiteral(".png"));
  return path ? DecodeResource(*path) : QImage();
}

std::int32_t LoadImageFromResource(const QString& name, QImage* out) {
  const std::optional<QString> path = ResourcePath(name);
  if (!path) return kFileNotFound;
  *out = DecodeAgainIfNull([&] { return DecodeResource(*path); });
  return 0;
}

std::int32_t LoadImageFromURL(const QUrl& url, QImage* out) {
  const std::optional<QString> path = FSRefOfURL(url);
  return path ? LoadImageFromFSRef(*path, out) : kFileNotFound;
}

std::int32_t LoadImageFromFSRef(const QString& path, QImage* out) {
  if (!NativePath(path)) return 0;
  *out = DecodeAgainIfNull([&] { return DecodeImageFile(path, kPng); });
  return 0;
}

std::int32_t LoadImageFromData(const QByteArray& /*data*/, QImage* out) {
  *out = QImage();
  return kImageDataRefused;
}

std::int32_t LoadImageFromDrag(DragReference& drag, QImage* out) {
  Step step = LoadFromPasteboard(drag, out);
  if (step.isFinal || step.status == 0) return step.status;
  std::uint16_t count = 0;
  if (const auto status = drag.CountDragItems(&count)) return status;
  for (int item = 1; item <= count && !step.isFinal; ++item) {
    step = LoadFromItem(drag, item, step.status, out);
  }
  return step.status;
}

}  // namespace vardell
