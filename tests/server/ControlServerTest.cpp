#include "server/ControlServer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <array>
#include <stdexcept>
#include <vector>

#include "Common Sources/Caps.h"
#include "tests/server/HouseholdFixture.h"
#include "tests/server/NetworkThread.h"
#include "tests/server/OtherUsers.h"

namespace vardell::server {
namespace {

using test::AsUser;
using test::kAnna;
using test::NetworkThread;

constexpr int kPatienceMs = 10000;
constexpr std::chrono::milliseconds kShort{150};

class Client {
 public:
  explicit Client(const QString& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    std::copy(name.begin(), name.end(), address.sun_path);
    connected_ = connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }
  ~Client() { close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool IsConnected() const { return connected_; }
  void Send(const QByteArray& bytes) const {
    (void)!send(fd_, bytes.constData(), static_cast<std::size_t>(bytes.size()), MSG_NOSIGNAL);
  }
  // Everything that comes until `until` has come or the server closes.
  QByteArray Read(const QByteArray& until) {
    QByteArray text;
    while (!text.contains(until) && Step(&text)) {
    }
    return text;
  }
  QByteArray ReadToEnd() { return Read(QByteArrayLiteral("never sent")); }
  bool IsClosed() const { return closed_; }

 private:
  bool Step(QByteArray* text) {
    pollfd wait{fd_, POLLIN, 0};
    std::array<char, 4096> bytes;
    if (poll(&wait, 1, kPatienceMs) != 1) return false;
    const ssize_t size = recv(fd_, bytes.data(), bytes.size(), 0);
    closed_ = size <= 0;
    if (closed_) return false;
    text->append(bytes.data(), size);
    return true;
  }

  const int fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
  bool connected_ = false;
  bool closed_ = false;
};

QByteArray Request(const QByteArray& line, const QByteArray& body = {},
                   const QByteArray& headers = {}) {
  return line + " HTTP/1.1\r\nHost: localhost\r\n" + headers +
         "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

class ControlServerTest : public HouseholdFixture {
 protected:
  void Start(ControlServer::Options options = {}) {
    if (options.path.isEmpty()) options.path = Path();
    options.status = [this] {
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
};

TEST_F(ControlServerTest, AnswersOneRequestAfterTheOtherOnAConnection) {
  Start();
  Client client(Path());
  client.Send(Request("GET /v1/users") + Request("GET /v1/nothing"));
  const QByteArray text = client.Read("problem+json");
  EXPECT_TRUE(text.startsWith("HTTP/1.1 200 OK\r\n")) << text.data();
  EXPECT_TRUE(text.contains("Content-Type: application/json\r\n"));
  EXPECT_TRUE(text.contains("{\"users\":[]}"));
  EXPECT_TRUE(text.contains("HTTP/1.1 404 Not Found\r\n"));
  EXPECT_FALSE(client.IsClosed());
  client.Send(Request("GET /v1/status", {}, "Connection: close\r\n"));
  EXPECT_TRUE(client.ReadToEnd().contains("\"version\":\"0.1\""));
  EXPECT_TRUE(client.IsClosed());
}

TEST_F(ControlServerTest, HeadersReachTheResourcesAndComeBack) {
  ControlServer::Options options;
  options.whoIs = [this](uid_t, gid_t) {
    return Requester{root_, QStringLiteral("root"), Role::Admin};
  };
  Start(options);
  Client client(Path());
  const QByteArray target = "/v1/users/anna/limits/x%2Fy";
  client.Send(Request("PATCH " + target, R"({"limits":{"Credit":5}})", "If-None-Match: *\r\n"));
  EXPECT_TRUE(client.Read("}\n").contains("201 Created"));
  client.Send(Request("PATCH " + target, R"({"limits":{"WD start":6}})", "If-Match: \"1\"\r\n"));
  EXPECT_TRUE(client.Read("}\n").contains("ETag: \"2\""));
  client.Send(Request("DELETE " + target));
  EXPECT_TRUE(client.Read("}\n").contains("Allow: GET, PATCH\r\n"));
}

TEST_F(ControlServerTest, WhoAsksIsWhatTheKernelSays) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: another user connects";
  ControlServer::Options options;
  options.whoIs = [](uid_t uid, gid_t) {
    Requester requester;
    requester.actor = {uid, QString::number(uid)};
    requester.userName = uid == kAnna ? QStringLiteral("anna") : QStringLiteral("other");
    requester.role = uid == 0 ? Role::Admin : Role::Read;
    return requester;
  };
  Start(options);
  Limit({{QStringLiteral("Credit"), 5}});
  chmod(QFile::encodeName(folder_.path()).constData(), 0755);
  AsUser(kAnna, [&] {
    Client client(Path());
    ASSERT_TRUE(client.IsConnected()) << "everybody may connect";
    client.Send(Request("GET /v1/users/anna/limits"));
    EXPECT_TRUE(client.Read("}\n").startsWith("HTTP/1.1 200 "));
    client.Send(Request("GET /v1/users/ben/limits", {}, "X-User: ben\r\nAuthorization: root\r\n"));
    EXPECT_TRUE(client.Read("}\n").startsWith("HTTP/1.1 403 "));
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
      {"a target too large", "GET /" + longLine, "431", "too-large"},
      {"no HTTP", "hello\r\n\r\n", "400", "bad-request"},
      {"two lengths", "GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n", "400",
       "bad-request"},
      {"binary", QByteArray("\x16\x03\x01\x00\xff\r\n\r\n", 9), "400", "bad-request"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    Client client(Path());
    client.Send(row.bytes);
    const QByteArray text = client.ReadToEnd();
    EXPECT_TRUE(text.startsWith(QByteArray("HTTP/1.1 ") + row.status)) << text.left(80).data();
    EXPECT_TRUE(text.contains(row.code));
    EXPECT_TRUE(client.IsClosed());
  }
}

TEST_F(ControlServerTest, ABodyOfExactlyTheCapIsRead) {
  Start();
  Client client(Path());
  client.Send(Request("PUT /v1/nothing", QByteArray(static_cast<int>(kMaxControlBodyBytes), ' ')));
  EXPECT_TRUE(client.Read("}\n").startsWith("HTTP/1.1 404 "));
}

TEST_F(ControlServerTest, SlowClientsAreClosedAndHoldUpNobody) {
  ControlServer::Options options;
  options.idleLimit = kShort;
  options.requestLimit = kShort;
  Start(options);
  const struct {
    const char* what;
    QByteArray bytes;
  } kRows[] = {
      {"says nothing", {}},
      {"stops in the header", "GET /v1/status HT"},
      {"stops in the body", "PUT /x HTTP/1.1\r\nContent-Length: 10\r\n\r\n123"},
      {"stops in the next request", Request("GET /v1/status") + "GET"},
  };
  std::vector<std::unique_ptr<Client>> slow;
  for (const auto& row : kRows) {
    slow.push_back(std::make_unique<Client>(Path()));
    slow.back()->Send(row.bytes);
  }
  Client quick(Path());
  quick.Send(Request("GET /v1/status"));
  EXPECT_TRUE(quick.Read("}\n").startsWith("HTTP/1.1 200 "));
  for (std::size_t i = 0; i < slow.size(); ++i) {
    (void)slow[i]->ReadToEnd();
    EXPECT_TRUE(slow[i]->IsClosed()) << kRows[i].what;
  }
}

TEST_F(ControlServerTest, EachUserHasAShareOfTheConnections) {
  Start();
  std::vector<std::unique_ptr<Client>> held;
  for (std::size_t i = 0; i < kMaxControlConnectionsOfUser; ++i) {
    held.push_back(std::make_unique<Client>(Path()));
    held.back()->Send(Request("GET /v1/users"));
    EXPECT_FALSE(held.back()->Read("}\n").isEmpty());
  }
  Client onTop(Path());
  EXPECT_TRUE(onTop.ReadToEnd().isEmpty());
  EXPECT_TRUE(onTop.IsClosed());
  if (geteuid() == 0) {
    chmod(QFile::encodeName(folder_.path()).constData(), 0755);
    AsUser(kAnna, [&] {
      Client other(Path());
      other.Send(Request("GET /v1/users"));
      EXPECT_TRUE(other.Read("}\n").startsWith("HTTP/1.1 200 ")) << "another user's share";
    });
  }
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

TEST_F(ControlServerTest, AStaleSocketIsReplacedAndALivingOneIsNot) {
  Start();
  EXPECT_NE(ErrorOfStarting(Path()).find("another vardell-server answers"), std::string::npos);
  Stop();

  const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const QByteArray name = QFile::encodeName(Path());
  std::copy(name.begin(), name.end(), address.sun_path);
  ASSERT_EQ(bind(stale, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  close(stale);
  EXPECT_EQ(ErrorOfStarting(Path()), "");
  EXPECT_TRUE(Client(Path()).IsConnected());
}

TEST_F(ControlServerTest, WhatIsNoSocketStays) {
  const QString path = folder_.filePath(QStringLiteral("notes"));
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  file.write("keep me");
  file.close();
  EXPECT_NE(ErrorOfStarting(path).find("no socket"), std::string::npos);
  EXPECT_EQ(QFileInfo(path).size(), 7);
}

TEST_F(ControlServerTest, APathThatDoesNotFitIsRefused) {
  const QString path = folder_.filePath(QString(110, QLatin1Char('x')));
  EXPECT_NE(ErrorOfStarting(path).find("must have 1 to 107 bytes"), std::string::npos);
}

}  // namespace
}  // namespace vardell::server
