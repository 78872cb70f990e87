// A PostgreSQL of the test's own, in a temporary folder: on a Unix socket there and on a free port
// of 127.0.0.1, where passwords are asked for. Flushes are real. Ended with the object.
#pragma once

#include <arpa/inet.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QDir>
#include <QTemporaryDir>
#include <stdexcept>

#include "tests/support/Program.h"

namespace vardell::test {

inline std::string PostgresProgram(const char* name) {
  QDir versions(QStringLiteral("/usr/lib/postgresql"));
  const QStringList found = versions.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
  if (found.isEmpty()) throw std::runtime_error("no PostgreSQL: tools/packages test");
  return versions.filePath(found.last()).toStdString() + "/bin/" + name;
}

class PostgresCluster {
 public:
  static constexpr char kPassword[] = "s3cret";

  PostgresCluster() {
    if (geteuid() == 0) {  // which PostgreSQL refuses
      const passwd* account = getpwnam("postgres");
      uid_ = account ? account->pw_uid : 65534;
    }
    QFile password(folder_.filePath(QStringLiteral("password")));
    if (!password.open(QIODevice::WriteOnly)) throw std::runtime_error("no folder");
    password.write(kPassword);
    password.close();
    for (const QString& path : {folder_.path(), password.fileName()})
      (void)!chown(path.toUtf8().constData(), uid_, static_cast<gid_t>(-1));
    const Finished made = Run({PostgresProgram("initdb"), "-N", "-E", "UTF8", "--locale=C", "-U",
                               "vardell", "--auth-local=trust", "--auth-host=scram-sha-256",
                               "--pwfile=" + password.fileName().toStdString(), "-D", Data()},
                              {.uid = uid_});
    if (made.status != 0) throw std::runtime_error(made.output.toStdString());
    port_ = FreePort();
    Start();
  }
  ~PostgresCluster() { Kill(); }

  void Start() {
    server_ =
        Program({PostgresProgram("postgres"), "-D", Data(), "-p", std::to_string(port_), "-k",
                 folder_.path().toStdString(), "-c", "listen_addresses=127.0.0.1", "-c",
                 "max_connections=40", "-c", "fsync=on", "-c", "recovery_init_sync_method=syncfs"},
                {.output = Log(), .uid = uid_});
    const auto isReady = [this] {
      return Run({PostgresProgram("pg_isready"), "-q", "-h", folder_.path().toStdString(), "-p",
                  std::to_string(port_)},
                 {})
                 .status == 0;
    };
    if (!WaitUntil(isReady)) throw std::runtime_error(server_.Output().toStdString());
  }

  // As a power cut.
  void Kill() {
    const std::vector<pid_t> pids = Processes();
    for (const pid_t pid : pids) kill(pid, SIGKILL);
    server_.End(SIGKILL);
    // The next one does not start while one of them is left.
    (void)WaitUntil([&] {
      return std::all_of(pids.begin(), pids.end(), [](pid_t pid) { return !IsAlive(pid); });
    });
  }
  void Freeze() { SignalAll(SIGSTOP); }
  void Thaw() { SignalAll(SIGCONT); }

  std::uint16_t Port() const { return port_; }
  QString Folder() const { return folder_.path(); }
  // Through the socket, as the superuser "vardell" or another.
  QString Uri(const QString& database, const QString& user = QStringLiteral("vardell")) const {
    return QStringLiteral("postgresql:///%1?host=%2&port=%3&user=%4")
        .arg(database, folder_.path())
        .arg(port_)
        .arg(user);
  }
  // With a password, over TCP.
  QString TcpUri(const QString& database, const QString& password) const {
    return QStringLiteral("postgresql://vardell:%1@127.0.0.1:%2/%3")
        .arg(password)
        .arg(port_)
        .arg(database);
  }

 private:
  static std::uint16_t FreePort() {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    (void)bind(listener, generic, size);
    (void)getsockname(listener, generic, &size);
    close(listener);
    return ntohs(address.sin_port);
  }
  // Zombies are not.
  static bool IsAlive(pid_t pid) {
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly)) return false;
    const QByteArray text = file.readAll();
    return text.mid(text.lastIndexOf(')') + 2, 1) != "Z";
  }
  std::string Data() const { return folder_.path().toStdString() + "/data"; }
  std::string Log() const { return folder_.path().toStdString() + "/log"; }

  // The server first: it starts others in place of those that end.
  std::vector<pid_t> Processes() const {
    std::vector<pid_t> pids;
    if (server_.pid() <= 0) return pids;
    pids.push_back(server_.pid());
    QFile file(QStringLiteral("/proc/%1/task/%1/children").arg(server_.pid()));
    if (!file.open(QIODevice::ReadOnly)) return pids;
    for (const QByteArray& pid : file.readAll().split(' ')) {
      if (pid.toInt() > 0) pids.push_back(pid.toInt());
    }
    return pids;
  }
  void SignalAll(int number) {
    for (const pid_t pid : Processes()) kill(pid, number);
  }

  QTemporaryDir folder_{QDir::tempPath() + QStringLiteral("/vardell-pg-XXXXXX")};
  uid_t uid_ = 0;
  std::uint16_t port_ = 0;
  Program server_;
};

}  // namespace vardell::test
