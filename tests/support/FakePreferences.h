// Preferences that a test sets.
#pragma once

#include "platform/Preferences.h"

namespace vardell {

class FakePreferences : public Preferences {
 public:
  bool Synchronize() override { return synchronizes; }
  std::optional<QVariant> Value(const QString& key) override {
    const auto value = values.find(key);
    return value == values.end() ? std::nullopt : std::optional(*value);
  }

  bool synchronizes = true;
  QVariantMap values;
};

}  // namespace vardell
