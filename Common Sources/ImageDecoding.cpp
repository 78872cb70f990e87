#include "Common Sources/ImageDecoding.h"

#include <QBuffer>
#include <QImageReader>
#include <QPixelFormat>
#include <algorithm>
#include <optional>

#include "Common Sources/Caps.h"
#include "Common Sources/FileSystem.h"

namespace vardell {

namespace {

// A format that tells no size beforehand is left to Qt's own limit.
bool IsTooLarge(const QImageReader& reader) {
  const QSize size = reader.size();
  if (!size.isValid()) return false;
  const qint64 bytesPerPixel =
      std::max(32, int{QImage::toPixelFormat(reader.imageFormat()).bitsPerPixel()}) / 8;
  return qint64{size.width()} * size.height() >
         (qint64{kMaxPictureMegabytes} << 20) / bytesPerPixel;
}

}  // namespace

QImage DecodeImage(const QByteArray& bytes, const QByteArray& format) {
  QBuffer buffer;
  buffer.setData(bytes);
  buffer.open(QIODevice::ReadOnly);
  QImageReader reader(&buffer, format);
  reader.setAutoDetectImageFormat(format.isEmpty());
  return !reader.canRead() || IsTooLarge(reader) ? QImage() : reader.read();
}

QImage DecodeImageFile(const QString& path, const QByteArray& format) {
  const std::optional<QByteArray> nativePath = NativePath(path);
  if (!nativePath) return {};
  const std::optional<QByteArray> bytes = LoadFile(*nativePath, kMaxPictureBytes);
  return bytes ? DecodeImage(*bytes, format) : QImage();
}

}  // namespace vardell
