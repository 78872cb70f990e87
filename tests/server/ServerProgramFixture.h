// The real vardell-server over a store of its own, spoken to over its sockets.
#pragma once

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <QRegularExpression>
#include <QTemporaryDir>

#include "server/Household.h"
#include "server/Store.h"
#include "tests/server/Client.h"
#include "tests/support/Program.h"

namespace vardell::server {

using namespace test;

inline const QString kCredit = QStringLiteral("Credit");
inline const QString kEnabled = QStringLiteral("Enabled");

class ServerProgramFixture : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(folder_.isValid());
    const passwd* me = getpwuid(getuid());
    ASSERT_NE(me, nullptr);
    user_ = QString::fromUtf8(me->pw_name);
  }
  void TearDown() override {
    if (HasFailure()) fprintf(stderr, "--- Server\n%s\n", qPrintable(server_.Output()));
  }

  std::string Path(const char* name) const {
    return folder_.filePath(QLatin1String(name)).toStdString();
  }
  std::vector<std::string> Command(const std::string& listen = "127.0.0.1:0",
                                   const char* store = "store.sqlite") const {
    return {VARDELL_BIN_DIR "/vardell-server",
            "--listen",
            listen,
            "--store",
            Path(store),
            "--control",
            Path("control"),
            "--no-publish"};
  }

  // What the Server has kept; not while it runs.
  std::unique_ptr<Household> OpenHousehold() const {
    Clocks clocks{[] { return std::chrono::milliseconds(0); }, QStringLiteral("test"),
                  [] { return QDateTime::currentDateTime(); }, std::chrono::milliseconds(1000)};
    return std::make_unique<Household>(OpenStore(QString::fromStdString(Path("store.sqlite"))),
                                       clocks);
  }

  void Limit(std::int32_t credit) {
    const auto result = OpenHousehold()->ChangeLimits({}, user_, game_, {{kCredit, credit}}, 0);
    ASSERT_EQ(result.status, AdminStatus::Ok);
  }

  // `second`: the length of an enforcement second in milliseconds.
  void StartServer(const char* second = "1000") {
    unlink(Path("log").c_str());
    server_ = Program(Command(),
                      {.environment = {{"VARDELL_TEST_SECOND_MS", second}}, .output = Path("log")});
    const QRegularExpression ready(QStringLiteral("answering agents at 127.0.0.1:(\\d+)\\b"));
    ASSERT_TRUE(WaitUntil([&] {
      port_ = ready.match(server_.Output()).captured(1).toUShort();
      return port_ != 0 || !server_.IsRunning();
    }));
    ASSERT_NE(port_, 0);
  }

  QByteArray StartFrame() const { return FrameOf(RequestKind::ApplicationStart, {user_, game_}); }
  QByteArray FetchFrame() const { return FrameOf(RequestKind::FetchLimits, {user_, game_}); }
  QByteArray Report(std::int32_t credit) const {
    LimitsRecord record;
    record.credit = credit;
    return FrameOf(RequestKind::CreditReport, AppendLimitsRecordToData(user_, game_, record));
  }
  // -1 where no answer comes.
  static int CreditIn(const std::optional<QVariantMap>& answer) {
    return answer ? answer->value(kCredit, -1).toInt() : -1;
  }
  int Fetch(const Client& agent) const {
    agent.Send(FetchFrame());
    return CreditIn(agent.ReadDictionary());
  }

  // With one line.
  static void ExpectRefused(const std::vector<std::string>& command, int status, const char* says) {
    const Finished finished = test::Run(command, {});
    EXPECT_EQ(finished.status, status) << says;
    EXPECT_TRUE(finished.output.contains(QLatin1String(says))) << qPrintable(finished.output);
    EXPECT_EQ(finished.output.count(QLatin1Char('\n')), 1) << qPrintable(finished.output);
    EXPECT_TRUE(finished.output.startsWith(QStringLiteral("vardell-server: ")));
  }

  const QString game_ = QStringLiteral("org.example.game");
  QString user_;
  QTemporaryDir folder_;
  Program server_;
  std::uint16_t port_ = 0;
};

}  // namespace vardell::server
