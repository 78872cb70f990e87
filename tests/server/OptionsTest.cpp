#include "server/Options.h"

#include <gtest/gtest.h>

namespace vardell::server {
namespace {

TEST(OptionsTest, TakesWhatItKnows) {
  Options options;
  QString text;
  const QStringList words{QStringLiteral("--listen"), QStringLiteral("[::1]:4000"),
                          QStringLiteral("--store=/tmp/a b"), QStringLiteral("--no-publish")};
  ASSERT_EQ(ParseOptions(words, &options, &text), OptionsResult::Run);
  EXPECT_EQ(options.listenAddress, QStringLiteral("::1"));
  EXPECT_EQ(options.listenPort, 4000);
  EXPECT_EQ(options.store, QStringLiteral("/tmp/a b"));
  EXPECT_FALSE(options.publish);
  EXPECT_FALSE(options.killOnly);
}

TEST(OptionsTest, RefusesTheRestInOneLine) {
  const char* rows[] = {
      "--frobnicate",      "listen",          "--listen",           "--listen 127.0.0.1",
      "--listen :80",      "--listen ::1:80", "--listen 1.2.3.4:x", "--listen 1.2.3.4:65536",
      "--listen 1.2.3.4:", "--store",         "--store=",           "--no-publish=1",
  };
  for (const char* row : rows) {
    Options options;
    options.listenPort = 77;
    QString text;
    EXPECT_EQ(ParseOptions(QString::fromLatin1(row).split(QLatin1Char(' ')), &options, &text),
              OptionsResult::Misused)
        << row;
    EXPECT_TRUE(text.contains(QStringLiteral("--help"))) << row;
    EXPECT_FALSE(text.contains(QLatin1Char('\n'))) << row;
    EXPECT_EQ(options.listenPort, 77) << row;
  }
}

}  // namespace
}  // namespace vardell::server
