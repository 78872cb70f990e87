#include "control/CompletionCommand.h"

#include <signal.h>
#include <unistd.h>

#include <QFile>
#include <QJsonArray>

#include "Common Sources/TestHooks.h"
#include "control/Completion.h"
#include "control/KnownApplications.h"

namespace vardell::control {
namespace {

constexpr unsigned kSecondsInAll = 2;
constexpr qint64 kMaxAccountBytes = 1 << 20;
constexpr int kFirstPerson = 1000;
constexpr int kNobody = 65534;

// For whatever hangs: a disk, a Server that answers byte by byte.
void EndAfter(unsigned seconds) {
  signal(SIGALRM, [](int) { _exit(0); });
  alarm(seconds);
}

// Of the file alone: a directory service may take its time.
QStringList Accounts() {
  QFile file(ProductPath(QStringLiteral("/etc/passwd")));
  if (!file.open(QIODevice::ReadOnly)) return {};
  QStringList names;
  for (const QByteArray& line : file.read(kMaxAccountBytes).split('\n')) {
    const QList<QByteArray> fields = line.split(':');
    const int uid = fields.value(2).toInt();
    if (uid >= kFirstPerson && uid != kNobody) names.append(QString::fromUtf8(fields[0]));
  }
  return names;
}

QStringList Users(const HttpClient& server) {
  QStringList users;
  const QJsonArray names = Get(server, "/v1/users").json[QStringLiteral("users")].toArray();
  for (const QJsonValue& name : names) users.append(name.toString());
  return users.isEmpty() ? Accounts() : users;
}

QStringList Identifiers(const HttpClient& server, const QString& user) {
  QStringList identifiers;
  const QJsonObject answer = Get(server, UserTarget(user) + "/limits").json;
  const QJsonArray limits = answer[QStringLiteral("limits")].toArray();
  for (const QJsonValue& limit : limits) {
    identifiers.append(limit[QStringLiteral("identifier")].toString());
  }
  for (const QVariant& application : KnownApplications()) {
    identifiers.append(application.toMap().value(QStringLiteral("Identifier")).toString());
  }
  return identifiers;
}

}  // namespace

Result PrintCandidates(const Command& command, const HttpClient& server) {
  EndAfter(kSecondsInAll);
  const CompletionSources sources{[&] { return Users(server); },
                                  [&](const QString& user) { return Identifiers(server, user); },
                                  Accounts};
  QString text;
  for (const QString& candidate : Complete(command.words, sources)) {
    text += candidate + QLatin1Char('\n');
  }
  return Done(text);
}

}  // namespace vardell::control
