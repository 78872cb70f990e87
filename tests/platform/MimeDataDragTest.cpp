#include "platform/linux/MimeDataDrag.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QDropEvent>
#include <QTemporaryDir>
#include <QWidget>

#include "Common Sources/Images.h"
#include "tests/support/QtEnvironment.h"

namespace vardell {
namespace {

class View : public QWidget {
 public:
  View() { setAcceptDrops(true); }
  std::int32_t status = 1;
  QImage image;

 protected:
  void dragEnterEvent(QDragEnterEvent* event) override { event->acceptProposedAction(); }
  void dropEvent(QDropEvent* event) override {
    MimeDataDrag drag(*event->mimeData());
    status = LoadImageFromDrag(drag, &image);
    event->acceptProposedAction();
  }
};

struct Dropped {
  std::int32_t status;
  bool isImage;
};

Dropped Drop(const QMimeData& data) {
  View view;
  QDragEnterEvent enter({1, 1}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(&view, &enter);
  QDropEvent drop({1, 1}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(&view, &drop);
  return {view.status, !view.image.isNull()};
}

TEST(MimeDataDragTest, ADropOnAViewIsItsFirstFile) {
  const QTemporaryDir folder;
  const QString path =
      folder.filePath(QString::fromUtf8("d\xC3\xA9j\xC3\xA0 \xE6\x97\xA5 50%.png"));
  QImage image(2, 2, QImage::Format_RGB32);
  image.fill(Qt::red);
  QByteArray png;
  QBuffer buffer(&png);
  ASSERT_TRUE(image.save(path) && image.save(&buffer, "PNG"));
  const QByteArray file = QUrl::fromLocalFile(path).toEncoded();
  ASSERT_TRUE(file.endsWith("d%C3%A9j%C3%A0%20%E6%97%A5%2050%25.png")) << file.toStdString();
  const QByteArray gone = QUrl::fromLocalFile(path + u'x').toEncoded();

  struct Row {
    const char* name;
    QList<QPair<const char*, QByteArray>> formats;
    std::int32_t status;
    bool isImage;
  };
  const Row kRows[] = {
      {"a file", {{"text/uri-list", file + "\r\n"}}, 0, true},
      {"a name that is not encoded", {{"text/uri-list", "file://" + path.toUtf8()}}, 0, true},
      {"the first of two", {{"text/uri-list", file + "\r\n" + gone + "\r\n"}}, 0, true},
      {"the first is gone", {{"text/uri-list", gone + "\r\n" + file + "\r\n"}}, -43, false},
      {"after a comment", {{"text/uri-list", "#files\r\n\r\n" + file}}, 0, true},
      {"a file before data", {{"image/png", "no"}, {"text/uri-list", file}}, 0, true},
      {"a picture of a page", {{"text/uri-list", "http://a/b.png"}, {"image/png", png}}, -1, false},
      {"a page", {{"text/uri-list", "http://a/b.png"}}, -50, false},
      {"image data", {{"text/html", "<p>"}, {"image/png", png}}, -1, false},
      {"image data that does not come", {{"image/png", {}}}, kPasteboardNoSuchFlavor, false},
      {"text", {{"text/plain", file}}, -50, false},
      {"nothing", {}, kPasteboardNoSuchIndex, false},
  };
  for (const Row& row : kRows) {
    QMimeData data;
    for (const auto& [format, bytes] : row.formats) data.setData(QLatin1String(format), bytes);
    const Dropped dropped = Drop(data);
    EXPECT_EQ(dropped.status, row.status) << row.name;
    EXPECT_EQ(dropped.isImage, row.isImage) << row.name;
  }
}

}  // namespace
}  // namespace vardell
