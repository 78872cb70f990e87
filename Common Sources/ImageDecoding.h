// Images from bytes that others chose, within bounds. Any thread; reads a file, else nothing
// blocks.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>

namespace vardell {

// Null for what is no image, and for one of more than kMaxPictureMegabytes decoded, which is told
// by its header. Of the format alone where one is named ("PNG"), else of any that Qt tells by
// content.
QImage DecodeImage(const QByteArray& bytes, const QByteArray& format = {});

// The same for a regular file of at most kMaxPictureBytes; null for any other.
QImage DecodeImageFile(const QString& path, const QByteArray& format = {});

}  // namespace vardell
