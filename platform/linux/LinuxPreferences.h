#pragma once

#include "platform/Preferences.h"

namespace vardell {

class LinuxPreferences : public Preferences {
 public:
  bool Synchronize() override;
  std::optional<QVariant> Value(const QString& key) override;

 private:
  QVariantMap values_;
};

}  // namespace vardell
