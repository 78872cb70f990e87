#include "control/KnownApplications.h"

#include "limits/ApplicationsCatalogue.h"
#include "platform/linux/LinuxApplicationPreferences.h"
#include "platform/linux/LinuxInstalledApplications.h"

namespace vardell::control {
namespace {

// Reads what is stored, and forgets what is set.
class UnsavedPreferences : public ApplicationPreferences {
 public:
  std::optional<QVariant> Value(const QString& key) override {
    return set_.contains(key) ? std::optional(set_[key]) : stored_.Value(key);
  }
  void SetValue(const QString& key, const QVariant& value) override { set_.insert(key, value); }
  bool Synchronize() override { return true; }

 private:
  LinuxApplicationPreferences stored_;
  QVariantMap set_;
};

}  // namespace

QVariantList KnownApplications() {
  LinuxInstalledApplications installed;
  UnsavedPreferences preferences;
  return CopyApplicationsCatalogue(installed, preferences);
}

}  // namespace vardell::control
