// Session by login1 on the system bus: the session that this process is in, or where it is in none
// (the user's service manager has started it), the one that login1 names as the user's display.
// Where nobody answers, or there is neither, the session counts as active and its leader is the
// process whose pid is getsid of this one. Nothing in this process's environment has a say.
// A login1 that comes later, goes, or comes back is noticed. Each question waits at most 2 s.
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QTimer>
#include <QVariantMap>
#include <optional>

#include "platform/Session.h"

namespace vardell {

class LinuxSession : public QObject, public Session {
  Q_OBJECT

 public:
  LinuxSession();
  ~LinuxSession() override;

  bool IsActive() override { return active_; }
  std::int32_t LeaderPid() override;
  void Watch(std::function<void(bool active)> changed) override { changed_ = std::move(changed); }

 private Q_SLOTS:
  void PropertiesChanged(const QString& interface, const QVariantMap& changed,
                         const QStringList& invalidated);
  void BusLost();
  void SessionsChanged();

 private:
  void Connect();
  void OwnerChanged(const QString& owner);
  void FindSession();
  QString OwnSessionPath();
  QString DisplaySessionPath();
  std::optional<QVariantMap> ReadSession(const QString& path);
  void Follow(const QString& path);
  void Learn(const QVariantMap& properties);
  void Forget();
  void SetActive(bool active);

  QString name_;  // of the connection
  std::optional<QDBusConnection> bus_;
  QString path_;             // of the session's object; empty: login1 does not know us
  std::int32_t leader_ = 0;  // as login1 says; 0: unknown
  bool active_ = true;
  bool noAnswer_ = false;  // a question timed out: ask again later
  QTimer again_;
  std::function<void(bool)> changed_;
};

}  // namespace vardell
