#include <sys/types.h>
#include <unistd.h>

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QUuid>
#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "server/SafeKill.h"

namespace vardell::server {
namespace {

constexpr int kAnswerMs = 1000;

enum class Login1Answer { Leads, DoesNotLead, NoAnswer, NoLogin1 };

QString Login1() {
  return QStringLiteral("org.freedesktop.login1");
}

// A connection of its own for each question: one that lost its bus is not used again.
class SystemBus {
 public:
  SystemBus()
      : name_(QUuid::createUuid().toString()),
        connection_(QDBusConnection::connectToBus(QDBusConnection::SystemBus, name_)) {}
  ~SystemBus() { QDBusConnection::disconnectFromBus(name_); }
  SystemBus(const SystemBus&) = delete;
  SystemBus& operator=(const SystemBus&) = delete;

  bool IsConnected() const { return connection_.isConnected(); }
  QDBusMessage Ask(const QDBusMessage& call) const {
    return connection_.call(call, QDBus::Block, kAnswerMs);
  }

 private:
  const QString name_;
  const QDBusConnection connection_;
};

bool SaysThatThereIsNoLogin1(const QDBusMessage& reply) {
  const QString error = reply.errorName();
  return error == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
         error == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner") ||
         error.startsWith(QLatin1String("org.freedesktop.DBus.Error.Spawn."));
}

std::vector<QString> SessionsOf(uid_t user, const QDBusArgument& list) {
  std::vector<QString> paths;
  list.beginArray();
  while (!list.atEnd()) {
    QString id;
    QString name;
    QString seat;
    uint uid = 0;
    QDBusObjectPath path;
    list.beginStructure();
    list >> id >> uid >> name >> seat >> path;
    list.endStructure();
    if (uid == user) paths.push_back(path.path());
  }
  list.endArray();
  return paths;
}

pid_t LeaderOf(const SystemBus& bus, const QString& sessionPath) {
  QDBusMessage call = QDBusMessage::createMethodCall(
      Login1(), sessionPath, QStringLiteral("org.freedesktop.DBus.Properties"),
      QStringLiteral("Get"));
  call << QStringLiteral("org.freedesktop.login1.Session") << QStringLiteral("Leader");
  const QDBusMessage reply = bus.Ask(call);
  if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return 0;
  return static_cast<pid_t>(
      reply.arguments().constFirst().value<QDBusVariant>().variant().toUInt());
}

Login1Answer AskLogin1(pid_t pid, uid_t user) {
  const SystemBus bus;
  if (!bus.IsConnected()) return Login1Answer::NoLogin1;
  const QDBusMessage reply = bus.Ask(QDBusMessage::createMethodCall(
      Login1(), QStringLiteral("/org/freedesktop/login1"),
      QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("ListSessions")));
  if (SaysThatThereIsNoLogin1(reply)) return Login1Answer::NoLogin1;
  if (reply.type() != QDBusMessage::ReplyMessage ||
      reply.signature() != QLatin1String("a(susso)")) {
    return Login1Answer::NoAnswer;
  }
  const auto sessions = SessionsOf(user, reply.arguments().constFirst().value<QDBusArgument>());
  const bool leads = std::any_of(sessions.begin(), sessions.end(), [&](const QString& session) {
    return LeaderOf(bus, session) == pid;
  });
  return leads ? Login1Answer::Leads : Login1Answer::DoesNotLead;
}

// 0 where the folder's name is no pid.
pid_t PidOfFolder(const std::string& name) {
  pid_t pid = 0;
  const auto end = name.data() + name.size();
  const auto read = std::from_chars(name.data(), end, pid);
  return read.ec == std::errc() && read.ptr == end ? pid : 0;
}

bool IsMemberOf(pid_t member, pid_t session, uid_t user) {
  if (member <= 0 || getsid(member) != session) return false;
  const std::optional<ProcessFacts> facts = ReadProcessFacts(member);
  return facts && facts->session == session &&
         std::all_of(facts->uids.begin(), facts->uids.end(),
                     [user](uid_t uid) { return uid == user; });
}

}  // namespace

bool IsSessionLeaderByProcessTable(pid_t pid, uid_t user) {
  if (pid <= 1 || getsid(pid) != pid) return false;
  std::error_code error;
  auto entry = std::filesystem::directory_iterator("/proc", error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    if (IsMemberOf(PidOfFolder(entry->path().filename().string()), pid, user)) return true;
  }
  return false;
}

bool IsSessionLeaderOf(pid_t pid, uid_t user) {
  const Login1Answer answer = AskLogin1(pid, user);
  if (answer == Login1Answer::NoLogin1) return IsSessionLeaderByProcessTable(pid, user);
  return answer == Login1Answer::Leads;
}

}  // namespace vardell::server
