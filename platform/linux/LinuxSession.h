// Session by login1 on the system bus. Where login1 does not answer, or does not know this process,
// the session counts as active and its leader is the process whose pid is getsid of this one.
// login1 that comes later, or goes and comes back, is noticed.
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QVariantMap>

#include "platform/Session.h"

namespace vardell {

class LinuxSession : public QObject, public Session {
  Q_OBJECT

 public:
  LinuxSession();
  bool IsActive() override { return active_; }
  std::int32_t LeaderPid() override;
  void Watch(std::function<void(bool active)> changed) override { changed_ = std::move(changed); }

 private Q_SLOTS:
  void PropertiesChanged(const QString& interface, const QVariantMap& changed,
                         const QStringList& invalidated);

 private:
  void FindSession();
  void Read();
  void SetActive(bool active);
  QVariant SessionProperty(const char* name);

  QDBusConnection bus_;
  QString path_;  // of the session's object; empty: login1 does not know us
  bool active_ = true;
  std::function<void(bool)> changed_;
};

}  // namespace vardell
