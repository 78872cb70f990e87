// Preferences in an XML property list in the user's configuration folder. At any moment of a write,
// also of one that fails or is cut short, the file is the old one or the new one. What is stored
// but cannot be understood is kept under a further extension; what cannot even be read is left
// alone, and nothing is stored. Root stores nothing in a folder of somebody else's, which the
// environment may name: what lies there could lead anywhere, and what root made would be root's.
#pragma once

#include "platform/ApplicationPreferences.h"

namespace vardell {

// "com.brenwick.vardell5.plist" in the configuration folder of the user that this program runs as.
QString ApplicationPreferencesPath();

class LinuxApplicationPreferences : public ApplicationPreferences {
 public:
  explicit LinuxApplicationPreferences(QString path = ApplicationPreferencesPath());

  std::optional<QVariant> Value(const QString& key) override;
  void SetValue(const QString& key, const QVariant& value) override;
  bool Synchronize() override;

  // Keeps other programs from storing until the end of this object, and takes in what they have
  // stored: for a change of what is stored. Waits up to two seconds for one that does the same.
  // False as Synchronize() is.
  [[nodiscard]] bool Lock();

  // What kept the last Synchronize() from its work, for people; empty where nothing did.
  const QString& Problem() const { return problem_; }
  // Where what was stored and could not be understood was put last; empty where there was none.
  const QString& KeptAside() const { return keptAside_; }

 private:
  enum class Stored { Missing, Dictionary, Unintelligible, Unreadable };
  class FolderLock {
   public:
    FolderLock() = default;
    ~FolderLock() { Release(); }
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;
    bool Take(const QString& folder);  // errno tells why not
    void Release();
    bool IsTaken() const { return folder_ >= 0; }

   private:
    int folder_ = -1;
  };
  QString File() const;
  bool TakeLock();
  bool Store();
  Stored Read(QVariantMap& values) const;
  bool Write(const QVariantMap& values, Stored stored);
  bool KeepAside();
  bool Fail(const QString& problem);

  QString path_;
  QVariantMap stored_;
  QVariantMap set_;  // since the last Synchronize() that succeeded
  QString problem_;
  QString keptAside_;
  FolderLock lock_;
};

}  // namespace vardell
