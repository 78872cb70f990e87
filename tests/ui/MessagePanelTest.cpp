#include "ui/MessagePanel.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QImage>

#include "tests/support/QtEnvironment.h"

namespace vardell {
namespace {

TEST(MessagePanelTest, TextsStartAtAThirdAndAtTwoThirdsInIntegersOfSixteenBits) {
  struct Row {
    QRect panel;
    int messageTop;
    int hintTop;
    int bottom;
  };
  const Row kRows[] = {{QRect(0, 0, 800, 600), 200, 400, 600},
                       {QRect(0, 0, 1920, 1079), 359, 719, 1079},  // 718 where divided first
                       {QRect(0, 100, 1920, 1080), 393, 786, 1180},
                       {QRect(0, 0, 1920, 40000), -8512, -17024, -25536}};
  for (const Row& row : kRows) {
    const PanelBoxes boxes = PanelBoxesOf(row.panel);
    EXPECT_EQ(boxes.messageTop, row.messageTop);
    EXPECT_EQ(boxes.hintTop, row.hintTop);
    EXPECT_EQ(boxes.bottom, row.bottom);
  }
}

// The rectangle within which something was drawn between two rows, in one colour on black.
QRect Ink(const QImage& image, int top, int bottom) {
  QRect ink;
  for (int y = top; y < bottom; ++y) {
    for (int x = 0; x < image.width(); ++x) {
      if (image.pixel(x, y) != qRgb(0, 0, 0)) ink |= QRect(x, y, 1, 1);
    }
  }
  return ink;
}

TEST(MessagePanelTest, NoTextIsCutOffOrMeetsTheHint) {
  struct Row {
    const char* what;
    QString text;
  };
  const Row kRows[] = {
      {"a short one", QStringLiteral("Game")},
      {"many words",
       QStringLiteral("Rechtsschutzversicherungsgesellschaften sind alt. ").repeated(12)},
      {"one word", QString(250, QLatin1Char('W'))},
      {"more than anybody reads", QString(100000, QLatin1Char('W'))}};
  for (const QSize& size : {QSize(800, 600), QSize(1920, 1080), QSize(640, 1400)}) {
    const QRect panel(QPoint(), size);
    const PanelBoxes boxes = PanelBoxesOf(panel);
    for (const Row& row : kRows) {
      QImage image(size, QImage::Format_RGB32);
      QPainter painter(&image);
      DrawMessagePanel(painter, panel, row.text, QColor(kMessageColour));
      // A letter's highest pixel may stand a row above its line.
      const QRect text = Ink(image, 0, boxes.hintTop - 1);
      const QRect hint = Ink(image, boxes.hintTop - 1, size.height());
      EXPECT_GE(text.top(), boxes.messageTop - 1) << row.what;
      EXPECT_LT(text.top(), boxes.messageTop + size.height() / 30) << row.what;
      EXPECT_LT(text.bottom(), boxes.hintTop - 5) << row.what;
      EXPECT_LT(hint.bottom(), size.height() - 5) << row.what;
      EXPECT_GE(text.left(), size.width() / 10) << row.what;
      EXPECT_LE(text.right(), size.width() - size.width() / 10) << row.what;
      EXPECT_NEAR(text.center().x(), size.width() / 2, 4) << row.what;
      EXPECT_NEAR(hint.center().x(), size.width() / 2, 4) << row.what;
    }
  }
}

}  // namespace
}  // namespace vardell
