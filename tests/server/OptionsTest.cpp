#include "server/Options.h"

#include <gtest/gtest.h>

namespace vardell::server {
namespace {

TEST(OptionsTest, TakesAnAddressOfEitherFamily) {
  Options options;
  QString text;
  ASSERT_EQ(ParseOptions({QStringLiteral("--listen=[::1]:4000")}, &options, &text),
            OptionsResult::Run);
  EXPECT_EQ(options.listenAddress, QStringLiteral("::1"));
  EXPECT_EQ(options.listenPort, 4000);
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
