#include "ui/Images.h"

#include <QPainter>
#include <QPixmap>

#include "Common Sources/Diagnostics.h"

// Expands to declarations that must not stand in a namespace.
static void InitImageResource() {
  Q_INIT_RESOURCE(vardell_images);
}

namespace vardell {

namespace {

QIcon Disc() {
  constexpr int kSize = 44;
  QPixmap pixmap(kSize, kSize);
  pixmap.fill(Qt::transparent);
  QPainter painter(&pixmap);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setBrush(QColor(0x1b, 0x6d, 0xbb));
  painter.setPen(QPen(Qt::white, kSize / 11));
  painter.drawEllipse(pixmap.rect().adjusted(5, 5, -5, -5));
  return pixmap;
}

// Each file by itself: a QIcon made of a file's name reads beyond a TIFF's only page, whereupon the
// library complains, and leaves the double out on screens of normal resolution.
QIcon ReadIcon(const QString& name) {
  QIcon icon;
  for (const char* scale : {"", "@2x"}) {
    QPixmap pixmap(QStringLiteral(":/images/%1%2.tiff").arg(name, QLatin1String(scale)));
    if (pixmap.isNull()) continue;
    pixmap.setDevicePixelRatio(1);  // by its pixels, it serves a panel of large icons too
    icon.addPixmap(pixmap);
  }
  return icon;
}

QIcon CompiledIcon(const QString& name) {
  InitImageResource();
  const QIcon icon = ReadIcon(name);
  if (!icon.isNull()) return icon;
  PrintErrorLine(QStringLiteral("cannot read the picture \"%1\", showing a disc: is the Debian "
                                "package qt6-image-formats-plugins installed?")
                     .arg(name));
  return Disc();
}

}  // namespace

QIcon EyeIcon() {
  return CompiledIcon(QStringLiteral("eye"));
}

QIcon LockIcon() {
  return CompiledIcon(QStringLiteral("lock"));
}

}  // namespace vardell
