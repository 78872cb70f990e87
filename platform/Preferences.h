// The machine-wide preferences of the domain "com.brenwick.vardell5" (any user, current host): the
// file "/Library/Preferences/com.brenwick.vardell5.plist". Main thread only; reads a small file.
#pragma once

#include <QString>
#include <QVariant>
#include <optional>

namespace vardell {

inline constexpr char kSystemPreferencesPath[] = "/Library/Preferences/com.brenwick.vardell5.plist";

class Preferences {
 public:
  virtual ~Preferences() = default;
  // Takes in what was written since. False when the file exists and cannot be read as a dictionary;
  // the values known before then stay.
  virtual bool Synchronize() = 0;
  virtual std::optional<QVariant> Value(const QString& key) = 0;
};

}  // namespace vardell
