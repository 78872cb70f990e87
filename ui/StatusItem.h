// The item in the desktop's status bar: an eye, with a menu of what is left to each application, of
// the disk, and a way to lock. Main thread only; nothing blocks.
#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/StatusBar.h"

namespace vardell {

// What the menu asks for; borrowed functions outlive the item.
struct StatusItemHost {
  StatusBar& statusBar;
  std::function<void()> menuOpens;     // sets every application line, and keeps them fresh
  std::function<void()> lockComputer;  // queues the lock; returns at once
};

class StatusItem;

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

// Between the pictures "/lock.tiff" and "/eye.tiff", the first of them first.
void ToggleStatusIcon(StatusItem& item);

}  // namespace vardell
