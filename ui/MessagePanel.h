// The black panel over the whole main display that full-screen messages, the lock and the credit
// alert are shown on: a sentence in the middle, "Click to continue" below it. Main thread only.
#pragma once

#include <QColor>
#include <QEventLoop>
#include <QPainter>
#include <QPointer>
#include <QRect>
#include <cstdint>
#include <functional>

#include "platform/Screens.h"
#include "ui/KeptWindow.h"

namespace vardell {

inline constexpr QRgb kMessageColour = qRgb(255, 51, 51);
inline constexpr QRgb kCreditColour = qRgb(51, 51, 255);

// Where the two texts start within a panel: each at the top of its own box. The boxes overlap, so
// the sentence has the room from its own top to the hint's.
struct PanelBoxes {
  std::int16_t left = 0;
  std::int16_t right = 0;
  std::int16_t bottom = 0;
  std::int16_t messageTop = 0;
  std::int16_t hintTop = 0;
};
PanelBoxes PanelBoxesOf(const QRect& panel);

// Fills `panel` with black and sets both texts, each as large as its room lets it be. No letter is
// cut off, whatever the length of the words.
void DrawMessagePanel(QPainter& painter, const QRect& panel, const QString& message,
                      const QColor& colour);

// The places where a screen fade would run; none does.
inline void BeginScreenFade(bool) {}
inline void SizeFadeWindow() {}
inline void EndScreenFade(bool, bool) {}
inline void CleanUpScreenFade() {}

enum class PanelUse { CreditAlert, Message, Lock };

// Gives screens and input back to the panel `below`, over which it stands, if there is one. A click
// of any button anywhere dismisses it; no key does. One that is lost beneath another comes back
// when that has gone.
class MessagePanel : public KeptWindow {
  Q_OBJECT

 public:
  // `text` is asked at each redraw.
  MessagePanel(PanelUse use, QRgb colour, std::function<QString()> text, Screens& screens,
               MessagePanel* below);

  // The order of a showing: TakeScreens, Appear, RunModally, LeaveUIMode; then the panel is
  // destroyed before or after LeaveDisplays.
  void TakeScreens();
  void Appear();
  void RunModally();
  void LeaveUIMode();
  // The panel below keeps the other displays.
  static void LeaveDisplays(Screens& screens, const MessagePanel* below);

  void Dismiss();
  void Refresh();  // redraws if the text is another one now

  PanelUse Use() const { return use_; }
  MessagePanel* Below() const { return below_; }
  const QString& ShownText() const { return shown_; }

  // The panel that is up and over which no other stands, or null.
  static MessagePanel* Topmost();

 protected:
  void mousePressEvent(QMouseEvent* event) override;
  void closeEvent(QCloseEvent* event) override;
  void paintEvent(QPaintEvent* event) override;
  QRect Place() const override { return screens_.MainDisplayBounds(); }
  bool MayReturn() const override { return Topmost() == this; }
  void Return() override;

 private:
  PanelUse use_;
  QColor colour_;
  std::function<QString()> text_;
  QString shown_;
  Screens& screens_;
  QPointer<MessagePanel> below_;
  QEventLoop loop_;
};

}  // namespace vardell
