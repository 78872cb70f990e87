// The preferences of the current application and user: a dictionary that outlives the program.
// Implemented by platform/linux/ and by a fake in tests/support/. Main thread only; Synchronize
// reads and writes a small file.
#pragma once

#include <QString>
#include <QVariant>
#include <optional>

namespace vardell {

class ApplicationPreferences {
 public:
  virtual ~ApplicationPreferences() = default;

  // As set here last, else as stored.
  virtual std::optional<QVariant> Value(const QString& key) = 0;

  // Lasts as long as this object until Synchronize stores it.
  virtual void SetValue(const QString& key, const QVariant& value) = 0;

  // Stores what was set, and takes in what others have stored. False when that failed: what is
  // stored is then as it was, and what was set stays set.
  [[nodiscard]] virtual bool Synchronize() = 0;
};

}  // namespace vardell
