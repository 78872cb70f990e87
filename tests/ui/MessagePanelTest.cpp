#include "ui/MessagePanel.h"

#include <gtest/gtest.h>

#include <QImage>
#include <tuple>

#include "tests/support/QtEnvironment.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

TEST(MessagePanelTest, TextsStartAtAThirdAndAtTwoThirdsInIntegersOfSixteenBits) {
  const std::tuple<QRect, int, int, int> kRows[] = {
      {QRect(0, 0, 800, 600), 200, 400, 600},
      {QRect(0, 0, 1920, 1079), 359, 719, 1079},  // 718 where divided first
      {QRect(0, 100, 1920, 1080), 393, 786, 1180},
      {QRect(0, 0, 1920, 40000), -8512, -17024, -25536}};
  for (const auto& [panel, messageTop, hintTop, bottom] : kRows) {
    const PanelBoxes boxes = PanelBoxesOf(panel);
    EXPECT_EQ(std::tie(boxes.messageTop, boxes.hintTop, boxes.bottom),
              std::tie(messageTop, hintTop, bottom));
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
  const QString kTexts[] = {u"Game"_s,
                            u"Rechtsschutzversicherungsgesellschaften sind alt. "_s.repeated(12),
                            QString(250, u'W'), QString(100000, u'W')};
  for (const QSize& size : {QSize(800, 600), QSize(1920, 1080), QSize(640, 1400)}) {
    const QRect panel(QPoint(), size);
    const PanelBoxes boxes = PanelBoxesOf(panel);
    for (const QString& words : kTexts) {
      SCOPED_TRACE(words.size());
      QImage image(size, QImage::Format_RGB32);
      QPainter painter(&image);
      DrawMessagePanel(painter, panel, words, QColor(kMessageColour));
      // A letter's highest pixel may stand a row above its line.
      const QRect text = Ink(image, 0, boxes.hintTop - 1);
      const QRect hint = Ink(image, boxes.hintTop - 1, size.height());
      EXPECT_GE(text.top(), boxes.messageTop - 1);
      EXPECT_LT(text.top(), boxes.messageTop + size.height() / 30);
      EXPECT_LT(text.bottom(), boxes.hintTop - 5);
      EXPECT_LT(hint.bottom(), size.height() - 5);
      EXPECT_GE(text.left(), size.width() / 10);
      EXPECT_LE(text.right(), size.width() - size.width() / 10);
      EXPECT_NEAR(text.center().x(), size.width() / 2, 4);
      EXPECT_NEAR(hint.center().x(), size.width() / 2, 4);
    }
  }
}

}  // namespace
}  // namespace vardell
