// A real vardell-server for tests in which Servers are killed, and its administrator's requests.
#pragma once

#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <string>
#include <vector>

#include "tests/server/Client.h"
#include "tests/support/Program.h"

namespace vardell::server {

using namespace test;

inline constexpr int kFirstCredit = 90000;

// This process gets mounts and a network of its own, in which no connection goes out from the port
// of kill requests. False where it may not.
inline bool LeaveTheMachine() {
  static const bool isDone = [] {
    return geteuid() == 0 && unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           Run({"sh", "-c",
                "ip link set lo up && echo 20000 40000 > /proc/sys/net/ipv4/ip_local_port_range"},
               {})
                   .status == 0;
  }();
  return isDone;
}

// Whether the variable asks for a longer run; how long.
inline int CampaignOr(const char* variable, int usual) {
  const int wanted = qEnvironmentVariableIntValue(variable);
  return wanted > 0 ? wanted : usual;
}

struct HttpAnswer {
  int status = 0;  // 0: none came
  QJsonObject body;
};

inline HttpAnswer Ask(const QString& socket, const QByteArray& method, const QString& target,
                      const QJsonObject& body = {}, const QByteArray& header = {}) {
  const Client client(socket);
  if (!client.IsConnected()) return {};
  const QByteArray bytes =
      body.isEmpty() ? QByteArray() : QJsonDocument(body).toJson(QJsonDocument::Compact);
  client.Send(method + ' ' + target.toUtf8() + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" +
              header + "Content-Length: " + QByteArray::number(bytes.size()) + "\r\n\r\n" + bytes);
  const QByteArray text = client.ReadUntil("no answer has this");
  const qsizetype end = text.indexOf("\r\n\r\n");
  if (end < 0) return {};
  const QJsonDocument document = QJsonDocument::fromJson(text.mid(end + 4));
  if (!document.isObject()) return {};
  return {text.mid(9, 3).toInt(), document.object()};
}

inline QString MyName() {
  return QString::fromUtf8(getpwuid(getuid())->pw_name);
}

inline QString LimitPath(const QString& identifier) {
  return QStringLiteral("/v1/users/%1/limits/%2").arg(MyName(), identifier);
}

// A real vardell-server that is started again and again with the same store and spool, at the same
// port.
class RealServer {
 public:
  struct Options {
    std::string folder;  // for its control socket, log and spool
    std::string store;
    std::uint16_t port = 45000;            // none that a connection goes out from
    std::vector<std::string> before = {};  // words before the command
    std::string spool = {};                // folder/spool
    uid_t uid = 0;
  };
  explicit RealServer(Options options) : options_(std::move(options)) {}
  ~RealServer() {
    if (testing::Test::HasFailure() && !hadFailed_)
      fprintf(stderr, "--- Server\n%s\n", qPrintable(Log()));
  }
  RealServer(const RealServer&) = delete;
  RealServer& operator=(const RealServer&) = delete;

  std::vector<std::string> Command() const {
    std::vector<std::string> command = options_.before;
    const std::string spool = options_.spool.empty() ? options_.folder + "/spool" : options_.spool;
    for (const std::string& word :
         {std::string(VARDELL_BIN_DIR "/vardell-server"), std::string("--listen"),
          "0.0.0.0:" + std::to_string(options_.port), std::string("--store"), options_.store,
          std::string("--spool"), spool, std::string("--control"), options_.folder + "/control",
          std::string("--no-publish")}) {
      command.push_back(word);
    }
    return command;
  }
  void Launch() {
    unlink((options_.folder + "/log").c_str());
    program_ = Program(Command(), {.environment = {{"VARDELL_TEST_SECOND_MS", "1"}},
                                   .output = options_.folder + "/log",
                                   .uid = options_.uid});
  }
  bool WaitUntilReady() const {
    return WaitUntil([&] { return !program_.IsRunning() || Says("answering agents"); },
                     kPatience * 3) &&
           program_.IsRunning();
  }
  bool Start() {
    Launch();
    return WaitUntilReady();
  }
  void Kill() { program_.End(SIGKILL); }

  std::uint16_t Port() const { return options_.port; }
  QString Log() const { return program_.Output(); }
  int Count(const char* words) const { return static_cast<int>(Log().count(QLatin1String(words))); }
  bool Says(const char* words) const { return Count(words) > 0; }
  Program& Process() { return program_; }

  QString Control() const { return QString::fromStdString(options_.folder + "/control"); }
  HttpAnswer Ask(const QByteArray& method, const QString& target, const QJsonObject& body = {},
                 const QByteArray& header = {}) const {
    return server::Ask(Control(), method, target, body, header);
  }
  HttpAnswer MakeLimit(const QString& identifier) const {
    const QJsonObject keys{{QStringLiteral("Credit"), kFirstCredit}};
    return Ask("PATCH", LimitPath(identifier), {{QStringLiteral("limits"), keys}},
               "If-None-Match: *\r\n");
  }
  QJsonObject Status() const { return Ask("GET", QStringLiteral("/v1/status")).body; }
  // All that it took is in the store.
  bool HasStoredAll() const {
    const QJsonObject status = Status();
    return !status.isEmpty() && status.value(QLatin1String("storeAway")).isNull() &&
           status.value(QLatin1String("spooled")).toInt() == 0;
  }

 private:
  Options options_;
  Program program_;
  const bool hadFailed_ = testing::Test::HasFailure();
};

}  // namespace vardell::server
