// The item in the desktop's status bar: an eye, with a menu of what is left to each application, of
// the disk, and a way to lock. Main thread only; nothing blocks.
#pragma once

#include <QMenu>
#include <QObject>
#include <QString>
#include <QSystemTrayIcon>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "platform/StatusBar.h"

namespace vardell {

// What the menu asks for; borrowed functions outlive the item.
struct StatusItemHost {
  StatusBar& statusBar;
  std::function<void()> menuOpens;     // sets every application line, and keeps them fresh
  std::function<void()> lockComputer;  // queues the lock; returns at once
};

// The menu's target and delegate.
class StatusItemListener : public QObject {
 public:
  explicit StatusItemListener(const StatusItemHost& host) : host_(host) {}
  void lockComputer() { host_.lockComputer(); }
  void menuNeedsUpdate() { host_.menuOpens(); }

 private:
  StatusItemHost host_;
};

class StatusItem {
 public:
  explicit StatusItem(const StatusItemHost& host);

  // Top to bottom: application lines or placeholders, the disk, a separator, "Lock computer".
  const QMenu& Menu() const { return menu_; }

  void Toggle();
  void ToggleIcon();
  void SetLine(std::int32_t pid, const QString& name, double credit);
  void RemoveLine(std::int32_t pid);
  bool HasLine(std::int32_t pid) const { return lines_.count(pid) > 0; }
  void SetDiskText(const QString& text) { SetText(*disk_, text); }

 private:
  // Who draws the menu, and thereby which characters of a text mean something.
  enum class Painter { Toolkit, Bus };

  QAction* InsertLine(int index, const QString& text);
  void SetText(QAction& action, const QString& text) const;
  void SetPainter(Painter painter);
  Painter UsualPainter();
  void Appear();
  void OpenHere();

  StatusItemListener listener_;
  QMenu menu_;
  Painter painter_ = Painter::Toolkit;
  QAction* placeholder_ = nullptr;  // the newest one, where there is any
  QAction* disk_ = nullptr;
  std::map<std::int32_t, QAction*> lines_;
  bool known_ = false;   // something that shows items has been there
  bool wanted_ = true;   // not toggled off
  bool isLock_ = false;  // the picture of the last ToggleIcon()
  std::unique_ptr<QSystemTrayIcon> icon_;
};

// The item and its menu. Where no status bar is there yet, the item appears once one is.
std::unique_ptr<StatusItem> CreateStatusItem(const StatusItemHost& host);

// Takes the item out of the status bar, or puts it back; the menu and its lines stay.
void ToggleStatusItem(StatusItem& item);

// The pid -1 stands for the whole session, whose line is the first. `credit` is whole minutes, and
// the seconds left of the current one as hundredths.
void SetAppCreditLine(StatusItem& item, std::int32_t pid, const QString& name, double credit);
// Also where there is no such line: then, without any other, one more placeholder is added.
void RemoveAppCreditLine(StatusItem& item, std::int32_t pid);
bool HasAppCreditLine(const StatusItem& item, std::int32_t pid);

void SetDiskLine(StatusItem& item, bool enabled, std::uint64_t limitBytes,
                 std::uint64_t usageBytes);

// Between the pictures "/lock.tiff" and "/eye.tiff", the first of them first; where such a file is
// no picture, the one that is compiled in.
void ToggleStatusIcon(StatusItem& item);

}  // namespace vardell
