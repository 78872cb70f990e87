#include "Common Sources/TestHooks.h"

#include <gtest/gtest.h>

namespace vardell {
namespace {

TEST(TestHooks, TakesASecondsLengthThatMakesSense) {
  const struct {
    const char* text;
    int expected;
  } kRows[] = {
      {"1", 1},   {"60000", 60000}, {"0", 1000},  {"-5", 1000},          {"60001", 1000},
      {"", 1000}, {"abc", 1000},    {"5x", 1000}, {"99999999999", 1000}, {"20", 20},
  };
  for (const auto& row : kRows) {
    qputenv("VARDELL_TEST_SECOND_MS", row.text);
    EXPECT_EQ(SecondLength().count(), row.expected) << "'" << row.text << "'";
  }
  qunsetenv("VARDELL_TEST_SECOND_MS");
  EXPECT_EQ(SecondLength().count(), 1000);
}

TEST(TestHooks, PutsTheRootBeforeAPath) {
  const QString path = QStringLiteral("/etc/x");
  EXPECT_EQ(ProductPath(path), path);
  for (const char* root : {"/tmp/root", "/tmp/root/", "/tmp/root//"}) {
    qputenv("VARDELL_TEST_ROOT", root);
    EXPECT_EQ(TestRoot(), QStringLiteral("/tmp/root")) << root;
    EXPECT_EQ(ProductPath(path), QStringLiteral("/tmp/root/etc/x")) << root;
  }
  qputenv("VARDELL_TEST_ROOT", "/");
  EXPECT_EQ(ProductPath(path), path);
  qunsetenv("VARDELL_TEST_ROOT");
}

}  // namespace
}  // namespace vardell
