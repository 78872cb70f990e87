// Preferences that a test sets and reads.
#pragma once

#include "platform/ApplicationPreferences.h"

namespace vardell {

class FakeApplicationPreferences : public ApplicationPreferences {
 public:
  std::optional<QVariant> Value(const QString& key) override {
    const auto value = values.find(key);
    return value == values.end() ? std::nullopt : std::optional(*value);
  }
  void SetValue(const QString& key, const QVariant& value) override {
    values.insert(key, value);
    isStored = false;
  }
  bool Synchronize() override { return isStored = true; }

  QVariantMap values;
  bool isStored = true;  // nothing was set since the last Synchronize
};

}  // namespace vardell
