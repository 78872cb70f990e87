// PNG images: from the program's own resources, from files, and from what is dropped on a view.
// Main thread; files are read at once. Nothing is said of failures: an image that is no PNG, larger
// than Caps.h allows or cannot be read is null, mostly beside the status 0. Look at the image.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>
#include <QUrl>
#include <cstdint>

namespace vardell {

class DragReference;

// Statuses besides kFileNotFound (FileSystem.h) and those of a drag.
inline constexpr std::int32_t kImageDataRefused = -1;
inline constexpr std::int32_t kImageBadParameter = -50;
inline constexpr std::int32_t kImageNoMemory = -108;

// The resource ":/images/NAME.png", or null.
QImage CopyBundlePNGImage(const QString& name);

// The operations below touch `out` only where they say so, and where the status is 0.

// The resource ":/images/NAME", whose name carries its extension. 0, or kFileNotFound.
[[nodiscard]] std::int32_t LoadImageFromResource(const QString& name, QImage* out);

// 0, or kFileNotFound for a URL that names no file or folder of this machine.
[[nodiscard]] std::int32_t LoadImageFromURL(const QUrl& url, QImage* out);

// Always 0. A file that gives no image is read once more. `out` stays as it is for a path that
// cannot be encoded.
std::int32_t LoadImageFromFSRef(const QString& path, QImage* out);

// Takes no data yet: kImageDataRefused, `out` null.
std::int32_t LoadImageFromData(const QByteArray& data, QImage* out);

// From the file that the drag's first item names, else from its classic flavours: files' records
// and files' URLs, each later one over the ones before. 0; kImageBadParameter where nothing fits,
// kImageDataRefused for image data (`out` null), kImageNoMemory for a classic URL that is none or
// too long, kFileNotFound; or what the drag answered. The last flavour's status is the answer, even
// where an earlier one gave an image; a failing call of the drag's ends it.
[[nodiscard]] std::int32_t LoadImageFromDrag(DragReference& drag, QImage* out);

}  // namespace vardell
