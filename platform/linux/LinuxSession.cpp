#include "platform/linux/LinuxSession.h"

#include <unistd.h>

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusServiceWatcher>

namespace vardell {
namespace {

constexpr int kAnswerLimitMs = 2000;
const QString kService = QStringLiteral("org.freedesktop.login1");
const QString kManagerPath = QStringLiteral("/org/freedesktop/login1");
const QString kManager = QStringLiteral("org.freedesktop.login1.Manager");
const QString kSession = QStringLiteral("org.freedesktop.login1.Session");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");

QString SessionPath(const QDBusConnection& bus, const QString& method, const QVariant& argument) {
  QDBusMessage call = QDBusMessage::createMethodCall(kService, kManagerPath, kManager, method);
  call << argument;
  const QDBusMessage answer = bus.call(call, QDBus::Block, kAnswerLimitMs);
  if (answer.type() != QDBusMessage::ReplyMessage || answer.arguments().isEmpty()) return {};
  return qvariant_cast<QDBusObjectPath>(answer.arguments().constFirst()).path();
}

}  // namespace

LinuxSession::LinuxSession() : bus_(QDBusConnection::systemBus()) {
  if (!bus_.isConnected()) return;
  auto* watcher =
      new QDBusServiceWatcher(kService, bus_, QDBusServiceWatcher::WatchForRegistration, this);
  connect(watcher, &QDBusServiceWatcher::serviceRegistered, this, [this] { FindSession(); });
  FindSession();
}

void LinuxSession::FindSession() {
  if (!bus_.interface()->isServiceRegistered(kService).value()) return;
  QString path = SessionPath(bus_, QStringLiteral("GetSessionByPID"),
                             QVariant::fromValue(static_cast<quint32>(getpid())));
  const QString id = qEnvironmentVariable("XDG_SESSION_ID");
  if (path.isEmpty() && !id.isEmpty()) path = SessionPath(bus_, QStringLiteral("GetSession"), id);
  if (path.isEmpty()) return;
  if (path != path_) {
    path_ = path;
    bus_.connect(kService, path_, kProperties, QStringLiteral("PropertiesChanged"), this,
                 SLOT(PropertiesChanged(QString, QVariantMap, QStringList)));
  }
  Read();
}

QVariant LinuxSession::SessionProperty(const char* name) {
  if (path_.isEmpty()) return {};
  QDBusMessage call =
      QDBusMessage::createMethodCall(kService, path_, kProperties, QStringLiteral("Get"));
  call << kSession << QString::fromLatin1(name);
  const QDBusMessage answer = bus_.call(call, QDBus::Block, kAnswerLimitMs);
  if (answer.type() != QDBusMessage::ReplyMessage || answer.arguments().isEmpty()) return {};
  return qvariant_cast<QDBusVariant>(answer.arguments().constFirst()).variant();
}

void LinuxSession::Read() {
  const QVariant active = SessionProperty("Active");
  if (active.typeId() == QMetaType::Bool) SetActive(active.toBool());
}

void LinuxSession::SetActive(bool active) {
  if (active_ == active) return;
  active_ = active;
  if (changed_) changed_(active);
}

void LinuxSession::PropertiesChanged(const QString& interface, const QVariantMap& changed,
                                     const QStringList& invalidated) {
  if (interface != kSession) return;
  const QVariant active = changed.value(QStringLiteral("Active"));
  if (active.typeId() == QMetaType::Bool) {
    SetActive(active.toBool());
  } else if (invalidated.contains(QStringLiteral("Active"))) {
    Read();
  }
}

std::int32_t LinuxSession::LeaderPid() {
  bool known = false;
  const std::uint32_t leader = SessionProperty("Leader").toUInt(&known);
  const pid_t pid = known && leader > 1 ? static_cast<pid_t>(leader) : getsid(0);
  return pid == getpid() ? 0 : pid;
}

}  // namespace vardell
