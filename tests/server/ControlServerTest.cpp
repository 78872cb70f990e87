#include "server/ControlServer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFileInfo>
#include <algorithm>
#include <list>
#include <stdexcept>

#include "Common Sources/Caps.h"
#include "tests/server/Client.h"
#include "tests/server/HouseholdFixture.h"
#include "tests/server/NetworkThread.h"
#include "tests/support/OtherUsers.h"

namespace vardell::server {
namespace {

using namespace test;

constexpr std::chrono::milliseconds kShort{150};
constexpr char kEnd[] = "}\n";  // of an answer's body

QByteArray Request(const QByteArray& line, const QByteArray& body = {},
                   const QByteArray& headers = {}) {
  return line + " HTTP/1.1\r\nHost: localhost\r\n" + headers +
         "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

QByteArray Ask(const Client& client, const QByteArray& request) {
  client.Send(request);
  return client.ReadUntil(kEnd);
}

class ControlServerTest : public HouseholdFixture {
 protected:
  // Everybody has that role.
  void Start(Role role) {
    ControlServer::Options options;
    options.whoIs = [role](uid_t uid, gid_t) {
      return Requester{{uid, QStringLiteral("uid")}, QStringLiteral("somebody"), role};
    };
    Start(options);
  }
  void Start(ControlServer::Options options = {}) {
    if (options.path.isEmpty()) options.path = Path();
    options.status = [this] {
      timesAskedAtStatus_.push_back(timesAsked_);
      return ServerStatus{QStringLiteral("0.1"), QStringLiteral("127.0.0.1:1"), {}, 0, now_};
    };
    network_.Run([&] {
      server_ = std::make_unique<ControlServer>(network_.Context(), *household_, options);
    });
  }
  void Stop() {
    network_.Run([this] { server_.reset(); });
  }
  void TearDown() override { Stop(); }

  QString Path() const { return folder_.filePath(QStringLiteral("run/control.sock")); }

  std::string ErrorOfStarting(const QString& path) {
    try {
      ControlServer::Options options;
      options.path = path;
      Start(options);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return {};
  }

  NetworkThread network_;
  std::unique_ptr<ControlServer> server_;
  std::vector<int> timesAskedAtStatus_;  // the clock
};

TEST_F(ControlServerTest, AnswersOneRequestAfterTheOtherWithTheirHeaders) {
  Start(Role::Admin);
  {
    const Client both(Path());
    both.Send(Request("GET /v1/users") + Request("GET /v1/nothing", {}, "Connection: close\r\n"));
    const QByteArray text = both.ReadUntil("never sent");
    EXPECT_TRUE(text.startsWith("HTTP/1.1 200 OK\r\n")) << text.data();
    EXPECT_TRUE(text.contains("Content-Type: application/json\r\n"));
    EXPECT_TRUE(text.contains("{\"users\":[]}\nHTTP/1.1 404 Not Found\r\n"));
    EXPECT_TRUE(both.IsClosedByServer());
  }
  const Client client(Path());
  const QByteArray target = "/v1/users/anna/limits/x%2Fy";
  EXPECT_TRUE(
      Ask(client, Request("PATCH " + target, R"({"limits":{"Credit":5}})", "If-None-Match: *\r\n"))
          .contains("201 Created"));
  EXPECT_TRUE(
      Ask(client, Request("PATCH " + target, R"({"limits":{"WD start":6}})", "If-Match: \"1\"\r\n"))
          .contains("ETag: \"2\""));
  EXPECT_TRUE(Ask(client, Request("POST " + target)).contains("Allow: GET, PATCH, DELETE\r\n"));
}

TEST_F(ControlServerTest, WhoAsksIsWhatTheKernelSays) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: another user connects";
  ControlServer::Options options;
  options.whoIs = [](uid_t uid, gid_t) {
    const auto name = uid == kAnna ? QStringLiteral("anna") : QStringLiteral("other");
    return Requester{{uid, name}, name, uid == 0 ? Role::Admin : Role::Read};
  };
  Start(options);
  Limit({{QStringLiteral("Credit"), 5}});
  chmod(QFile::encodeName(folder_.path()).constData(), 0755);
  AsUser(kAnna, [&] {
    const Client client(Path());
    ASSERT_TRUE(client.IsConnected()) << "everybody may connect";
    EXPECT_TRUE(Ask(client, Request("GET /v1/users/anna/limits")).startsWith("HTTP/1.1 200 "));
    EXPECT_TRUE(Ask(client, Request("GET /v1/users/ben/limits", {},
                                    "X-User: ben\r\nAuthorization: root\r\n"))
                    .startsWith("HTTP/1.1 403 "));
  });
}

// --- Clients that are greedy, slow or no clients at all.

TEST_F(ControlServerTest, FramingErrorsAreAnsweredAndTheConnectionIsClosed) {
  Start();
  const QByteArray longLine(static_cast<int>(kMaxControlHeaderBytes) + 1000, 'x');
  const struct {
    const char* what;
    QByteArray bytes;
    const char* status;
    const char* code;
  } kRows[] = {
      {"a body announced too large",
       "PUT /v1/users/a/limits/b/credit HTTP/1.1\r\nContent-Length: 65537\r\n\r\n", "413",
       "too-large"},
      {"a body of many chunks",
       "PUT /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n10001\r\n" + QByteArray(65537, 'x'),
       "413", "too-large"},
      {"a header too large", "GET /v1/status HTTP/1.1\r\nX: " + longLine, "431", "too-large"},
      {"no HTTP", "hello\r\n\r\n", "400", "bad-request"},
      {"two lengths", "GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n", "400",
       "bad-request"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    const Client client(Path());
    client.Send(row.bytes);
    const QByteArray text = client.ReadUntil("never sent");
    EXPECT_TRUE(text.startsWith(QByteArray("HTTP/1.1 ") + row.status)) << text.left(80).data();
    EXPECT_TRUE(text.contains(row.code));
    EXPECT_TRUE(client.IsClosedByServer());
  }
}

TEST_F(ControlServerTest, OnlyAnAdministratorsBackupMayBeLarge) {
  const QByteArray backup = "PUT /v1/backup";
  const QByteArray check = "PUT /v1/backup?check=1";
  const struct {
    const char* what;
    Role role;
    QByteArray line;
    std::size_t length;
    const char* status;
    const char* says;
  } kRows[] = {
      {"as large as may be", Role::Admin, backup, kMaxBackupBytes, "400", "not JSON"},
      {"a check", Role::Admin, check, kMaxControlBodyBytes + 1, "400", "not JSON"},
      {"larger", Role::Admin, backup, kMaxBackupBytes + 1, "413", "copy its store's file"},
      {"another resource", Role::Admin, "PUT /v1/users", kMaxControlBodyBytes + 1, "413", "65536"},
      {"another method", Role::Admin, "POST /v1/backup", kMaxControlBodyBytes + 1, "413", "65536"},
      {"another user", Role::TopUp, backup, kMaxControlBodyBytes + 1, "413", "65536"},
      {"another user, small", Role::TopUp, backup, 10, "403", "forbidden"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    Start(row.role);
    {
      const Client client(Path());
      const bool isRead = row.length <= kMaxControlBodyBytes || row.status != QByteArray("413");
      client.Send(row.line + " HTTP/1.1\r\nHost: x\r\nContent-Length: " +
                  QByteArray::number(qulonglong{row.length}) + "\r\n\r\n" +
                  (isRead ? QByteArray(static_cast<qsizetype>(row.length), 'x') : QByteArray()));
      const QByteArray answer = client.ReadUntil(kEnd);
      EXPECT_TRUE(answer.startsWith(QByteArray("HTTP/1.1 ") + row.status)) << answer.data();
      EXPECT_TRUE(answer.contains(row.says)) << answer.data();
    }
    Stop();
  }
}

TEST_F(ControlServerTest, OthersAreAnsweredBetweenTheStepsOfARestore) {
  Start(Role::Admin);
  QByteArray days;
  for (int day = 0; day < 12000; ++day) {
    days += ",\"" + QDate(1980, 1, 1).addDays(day).toString(Qt::ISODate).toLatin1() + "\":1";
  }
  const QByteArray backup =
      R"({"format":1,"made":"","server":"","limits":[],"usage":[{"user":"anna","identifier":"x",)"
      R"("days":{)" +
      days.mid(1) + "}}]}";
  const Client restoring(Path());
  restoring.Send(Request("PUT /v1/backup", backup));
  const Client other(Path());
  while (!restoring.HasSomethingToRead()) {
    ASSERT_TRUE(Ask(other, Request("GET /v1/status")).startsWith("HTTP/1.1 200 "));
  }
  EXPECT_TRUE(restoring.ReadUntil(kEnd).startsWith("HTTP/1.1 200 "));
  EXPECT_TRUE(std::any_of(timesAskedAtStatus_.begin(), timesAskedAtStatus_.end(), [](int rows) {
    return rows > 1000 && rows < 11000;
  })) << "a row asks the clock once";
}

TEST_F(ControlServerTest, EndsWhileARestoreIsUnderWay) {
  Start(Role::Admin);
  const Client client(Path());
  client.Send(Request("PUT /v1/backup", QByteArray(20 << 20, '[')));
  client.Send(Request("GET /v1/users"));
  Stop();
  EXPECT_TRUE(client.IsClosedByServer());
}

TEST_F(ControlServerTest, SlowClientsAreClosedAndHoldUpNobody) {
  ControlServer::Options options;
  options.idleLimit = kShort;
  options.requestLimit = kShort;
  Start(options);
  const std::pair<const char*, QByteArray> kRows[] = {
      {"says nothing", {}},
      {"stops in the header", "GET /v1/status HT"},
      {"stops in the body", "PUT /x HTTP/1.1\r\nContent-Length: 10\r\n\r\n123"},
      {"stops in the next request", Request("GET /v1/status") + "GET"},
  };
  std::list<Client> slow;
  for (const auto& [what, bytes] : kRows) slow.emplace_back(Path()).Send(bytes);
  const Client quick(Path());
  EXPECT_TRUE(Ask(quick, Request("GET /v1/status")).startsWith("HTTP/1.1 200 "));
  for (const auto& [what, bytes] : kRows) {
    (void)slow.front().ReadUntil("never sent");
    EXPECT_TRUE(slow.front().IsClosedByServer()) << what;
    slow.pop_front();
  }
}

TEST_F(ControlServerTest, EachUserHasAShareOfTheConnections) {
  Start();
  std::list<Client> held;
  for (std::size_t i = 0; i < kMaxControlConnectionsOfUser; ++i) {
    EXPECT_FALSE(Ask(held.emplace_back(Path()), Request("GET /v1/users")).isEmpty());
  }
  EXPECT_TRUE(Client(Path()).IsClosedByServer());
  if (geteuid() != 0) return (void)std::printf("not root: another user's share is not tried\n");
  chmod(QFile::encodeName(folder_.path()).constData(), 0755);
  AsUser(kAnna, [&] {
    const Client other(Path());
    EXPECT_TRUE(Ask(other, Request("GET /v1/users")).startsWith("HTTP/1.1 200 "))
        << "another user's share";
  });
}

// --- The socket's file.

TEST_F(ControlServerTest, FolderAndFileAreMadeForEverybodyWhateverTheUmask) {
  const mode_t before = umask(077);
  ControlServer::Options options;
  options.path = folder_.filePath(QStringLiteral("a/b/control.sock"));
  Start(options);
  umask(before);
  const auto modeOf = [this](const char* name) {
    struct stat info {};
    stat(QFile::encodeName(folder_.filePath(QLatin1String(name))).constData(), &info);
    return info.st_mode & 0777;
  };
  EXPECT_EQ(modeOf("a"), 0755u);
  EXPECT_EQ(modeOf("a/b"), 0755u);
  EXPECT_EQ(modeOf("a/b/control.sock"), 0666u);
  Stop();
  EXPECT_FALSE(QFileInfo::exists(options.path)) << "removed with the server";
}

TEST_F(ControlServerTest, ReplacesAStaleSocketAndNothingElse) {
  Start();
  EXPECT_NE(ErrorOfStarting(Path()).find("another vardell-server answers"), std::string::npos);
  // Linked under a second name, the file outlives its server.
  const QByteArray second = QFile::encodeName(Path() + QStringLiteral(".2"));
  ASSERT_EQ(link(QFile::encodeName(Path()).constData(), second.constData()), 0);
  Stop();
  EXPECT_EQ(ErrorOfStarting(QFile::decodeName(second)), "");
  EXPECT_TRUE(Client(QFile::decodeName(second)).IsConnected());

  const QString path = folder_.filePath(QStringLiteral("notes"));
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  file.close();
  EXPECT_NE(ErrorOfStarting(path).find("no socket"), std::string::npos);
  EXPECT_TRUE(QFileInfo(path).isFile());
  const QString tooLong = folder_.filePath(QString(110, QLatin1Char('x')));
  EXPECT_NE(ErrorOfStarting(tooLong).find("must have 1 to 107 bytes"), std::string::npos);
}

}  // namespace
}  // namespace vardell::server
