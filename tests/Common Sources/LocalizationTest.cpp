#include "Common Sources/Localization.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QLocale>

namespace vardell {
namespace {

struct Application {
  int argc = 1;
  char name[5] = "test";
  char* argv[2] = {name, nullptr};
  QCoreApplication application{argc, argv};
};

TEST(Localization, EveryKeyHasEnglishTextWhateverTheLocale) {
  const struct {
    const char* key;
    bool hasArguments;
  } kRows[] = {
      {"Credit low format", true},
      {"Credit low format disco", true},
      {"Credit low format disco in 5", true},
      {"Curfew early error", true},
      {"Curfew late error", true},
      {"Disk Space low format", true},
      {"Cannot contact server", false},
      {"Cannot contact remote server", false},
  };
  for (const QLocale& locale : {QLocale::c(), QLocale(QStringLiteral("fi_FI"))}) {
    QLocale::setDefault(locale);
    Application application;
    InstallTranslations(application.application);
    for (const auto& row : kRows) {
      const QString text = Localized(row.key);
      EXPECT_NE(text, QLatin1String(row.key));
      EXPECT_EQ(text.count(QStringLiteral("%1")), row.hasArguments) << row.key;
      EXPECT_EQ(text.count(QStringLiteral("%2")), row.hasArguments) << row.key;
    }
    EXPECT_EQ(Localized("no such key"), QStringLiteral("no such key"));
  }
  QLocale::setDefault(QLocale::system());
}

TEST(Localization, FillsInArgumentsInOnePass) {
  const auto fill = [](const char* format, const char* first, const char* second) {
    return FormatLocalized(QLatin1String(format), {QLatin1String(first), QLatin1String(second)})
        .toStdString();
  };
  EXPECT_EQ(fill("%2 %1 %2", "a", "b"), "b a b");
  EXPECT_EQ(fill("%1 until %2", "%2%1", "x"), "%2%1 until x") << "an argument's own place stays";
  EXPECT_EQ(fill("%1 %3 %0 100% %1%", "a", "b"), "a %3 %0 100% a%");
}

}  // namespace
}  // namespace vardell
