#include "platform/linux/LinuxSession.h"

#include <unistd.h>

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusServiceWatcher>
#include <chrono>
#include <utility>

namespace vardell {
namespace {

constexpr int kAnswerLimitMs = 2000;
constexpr std::chrono::seconds kRetryPause{10};
constexpr std::int32_t kInit = 1;
constexpr QLatin1String kService("org.freedesktop.login1");
constexpr QLatin1String kManagerPath("/org/freedesktop/login1");
constexpr QLatin1String kManager("org.freedesktop.login1.Manager");
constexpr QLatin1String kSession("org.freedesktop.login1.Session");
constexpr QLatin1String kUser("org.freedesktop.login1.User");
constexpr QLatin1String kProperties("org.freedesktop.DBus.Properties");
constexpr QLatin1String kLocal("org.freedesktop.DBus.Local");
constexpr QLatin1String kLocalPath("/org/freedesktop/DBus/Local");

QDBusMessage Ask(const QDBusConnection& bus, const QString& path, const QString& interface,
                 const QString& method, const QVariantList& arguments) {
  QDBusMessage call = QDBusMessage::createMethodCall(kService, path, interface, method);
  call.setAutoStartService(false);
  call.setArguments(arguments);
  return bus.call(call, QDBus::Block, kAnswerLimitMs);
}

bool IsReply(const QDBusMessage& answer) {
  return answer.type() == QDBusMessage::ReplyMessage && !answer.arguments().isEmpty();
}

bool IsSilence(const QDBusMessage& answer) {
  return answer.errorName() == QLatin1String("org.freedesktop.DBus.Error.NoReply") ||
         answer.errorName() == QLatin1String("org.freedesktop.DBus.Error.Timeout");
}

// What is not such a structure leaves both as they are.
template <typename Name>
void ReadReference(const QVariant& value, Name& name, QDBusObjectPath& object) {
  if (value.userType() != qMetaTypeId<QDBusArgument>()) return;
  const QDBusArgument argument = value.value<QDBusArgument>();
  if (argument.currentType() != QDBusArgument::StructureType) return;
  argument.beginStructure();
  argument >> name >> object;
  argument.endStructure();  // left open, it would leak
}

bool IsOurs(const QVariantMap& session) {
  quint32 uid = getuid() + 1;
  QDBusObjectPath object;
  ReadReference(session.value(QStringLiteral("User")), uid, object);
  return uid == getuid();
}

}  // namespace

LinuxSession::LinuxSession()
    : name_(QStringLiteral("vardell-session-%1").arg(reinterpret_cast<quintptr>(this))) {
  again_.setSingleShot(true);
  again_.setInterval(kRetryPause);
  connect(&again_, &QTimer::timeout, this, [this] { bus_ ? FindSession() : Connect(); });
  Connect();
}

LinuxSession::~LinuxSession() {
  bus_.reset();
  QDBusConnection::disconnectFromBus(name_);
}

void LinuxSession::Connect() {
  bus_ = QDBusConnection::connectToBus(QDBusConnection::SystemBus, name_);
  if (!bus_->isConnected()) {
    bus_.reset();
    QDBusConnection::disconnectFromBus(name_);
    again_.start();
    return;
  }
  bus_->connect(QString(), kLocalPath, kLocal, QStringLiteral("Disconnected"), this,
                SLOT(BusLost()));
  auto* watcher =
      new QDBusServiceWatcher(kService, *bus_, QDBusServiceWatcher::WatchForOwnerChange, this);
  watcher->setObjectName(name_);
  for (const char* event : {"SessionNew", "SessionRemoved"}) {
    bus_->connect(kService, kManagerPath, kManager, QLatin1String(event), this,
                  SLOT(SessionsChanged()));
  }
  connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
          [this](const QString&, const QString&, const QString& owner) { OwnerChanged(owner); });
  FindSession();
}

void LinuxSession::BusLost() {
  qDeleteAll(findChildren<QDBusServiceWatcher*>(name_));
  Forget();
  bus_.reset();
  QDBusConnection::disconnectFromBus(name_);
  again_.start();
}

void LinuxSession::OwnerChanged(const QString& owner) {
  if (owner.isEmpty()) {
    Forget();
  } else {
    FindSession();
  }
}

void LinuxSession::SessionsChanged() {
  FindSession();
}

void LinuxSession::FindSession() {
  noAnswer_ = false;
  const QString path = OwnSessionPath();
  const std::optional<QVariantMap> properties = path.isEmpty() ? std::nullopt : ReadSession(path);
  if (noAnswer_) {
    again_.start();
  } else if (!properties) {
    Forget();
  } else {
    Follow(path);
    Learn(*properties);
  }
}

QString LinuxSession::OwnSessionPath() {
  const QDBusMessage byPid = Ask(*bus_, kManagerPath, kManager, QStringLiteral("GetSessionByPID"),
                                 {static_cast<quint32>(getpid())});
  if (IsReply(byPid)) return qvariant_cast<QDBusObjectPath>(byPid.arguments().constFirst()).path();
  noAnswer_ = IsSilence(byPid);
  return noAnswer_ ? QString() : DisplaySessionPath();
}

// The user's service manager and what it starts are in no session.
QString LinuxSession::DisplaySessionPath() {
  const QDBusMessage user =
      Ask(*bus_, kManagerPath, kManager, QStringLiteral("GetUser"), {quint32{getuid()}});
  noAnswer_ = IsSilence(user);
  if (!IsReply(user)) return {};
  const QString userPath = qvariant_cast<QDBusObjectPath>(user.arguments().constFirst()).path();
  const QDBusMessage display = Ask(*bus_, userPath, kProperties, QStringLiteral("Get"),
                                   {QString(kUser), QStringLiteral("Display")});
  noAnswer_ = IsSilence(display);
  if (!IsReply(display)) return {};
  QString id;
  QDBusObjectPath object(QStringLiteral("/"));
  ReadReference(qvariant_cast<QDBusVariant>(display.arguments().constFirst()).variant(), id,
                object);
  if (object.path() == QLatin1String("/")) return {};
  const std::optional<QVariantMap> session = ReadSession(object.path());
  return session && IsOurs(*session) ? object.path() : QString();
}

std::optional<QVariantMap> LinuxSession::ReadSession(const QString& path) {
  const QDBusMessage answer =
      Ask(*bus_, path, kProperties, QStringLiteral("GetAll"), {QString(kSession)});
  noAnswer_ = IsSilence(answer);
  if (!IsReply(answer)) return std::nullopt;
  return qdbus_cast<QVariantMap>(answer.arguments().constFirst());
}

void LinuxSession::Follow(const QString& path) {
  if (path == path_) return;
  const char* const slot = SLOT(PropertiesChanged(QString, QVariantMap, QStringList));
  const QString signal = QStringLiteral("PropertiesChanged");
  if (!path_.isEmpty()) bus_->disconnect(kService, path_, kProperties, signal, this, slot);
  path_ = path;
  bus_->connect(kService, path_, kProperties, signal, this, slot);
}

void LinuxSession::Learn(const QVariantMap& properties) {
  const QVariant leader = properties.value(QStringLiteral("Leader"));
  if (leader.isValid()) leader_ = static_cast<std::int32_t>(leader.toUInt());
  const QVariant active = properties.value(QStringLiteral("Active"));
  if (active.typeId() == QMetaType::Bool) SetActive(active.toBool());
}

void LinuxSession::Forget() {
  leader_ = 0;
  SetActive(true);
}

void LinuxSession::SetActive(bool active) {
  if (std::exchange(active_, active) != active && changed_) changed_(active);
}

void LinuxSession::PropertiesChanged(const QString& interface, const QVariantMap& changed,
                                     const QStringList& invalidated) {
  if (interface != kSession) return;
  Learn(changed);
  if (invalidated.contains(QStringLiteral("Active")) ||
      invalidated.contains(QStringLiteral("Leader"))) {
    FindSession();
  }
}

std::int32_t LinuxSession::LeaderPid() {
  const std::int32_t pid = leader_ > kInit ? leader_ : getsid(0);
  return pid == getpid() ? 0 : pid;
}

}  // namespace vardell
