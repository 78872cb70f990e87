#include "Common Sources/Localization.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFile>
#include <QLocale>

namespace vardell {
namespace {

constexpr const char* kKeys[] = {
    "Credit low format",
    "Credit low format disco",
    "Credit low format disco in 5",
    "Click to continue",
    "your session",
    "computer",
    "Curfew early error",
    "Curfew late error",
    "This computer is locked",
    "Cannot contact server",
    "Cannot contact remote server",
    "Disk Space low format",
};

struct Application {
  int argc = 1;
  char name[5] = "test";
  char* argv[2] = {name, nullptr};
  QCoreApplication application{argc, argv};
};

TEST(Localization, AKeyWithoutATranslationIsItsOwnText) {
  EXPECT_EQ(Localized("Disk Space low format"), QStringLiteral("Disk Space low format"));
  Application application;
  InstallTranslations(application.application);
  EXPECT_EQ(Localized("no such key"), QStringLiteral("no such key"));
}

TEST(Localization, EveryKeyHasEnglishTextWhateverTheLocale) {
  for (const QLocale& locale : {QLocale::c(), QLocale(QStringLiteral("fi_FI"))}) {
    QLocale::setDefault(locale);
    Application application;
    InstallTranslations(application.application);
    EXPECT_TRUE(QFile::exists(QStringLiteral(":/i18n/vardell_en.qm")));
    for (const char* key : kKeys) {
      const QString text = Localized(key);
      const bool isFormat = QByteArray(key).contains("format") || QByteArray(key).contains("error");
      EXPECT_EQ(text != QLatin1String(key), isFormat || text.startsWith(QStringLiteral("Vardell")))
          << key;
      EXPECT_EQ(text.count(QStringLiteral("%1")), isFormat ? 1 : 0) << key;
      EXPECT_EQ(text.count(QStringLiteral("%2")), isFormat ? 1 : 0) << key;
    }
  }
  QLocale::setDefault(QLocale::system());
}

TEST(Localization, FillsInArgumentsInOnePass) {
  const struct {
    const char* behaviour;
    const char* format;
    const char* first;
    const char* second;
    const char* expected;
  } kRows[] = {
      {"in order", "%1 until %2", "Chess", "8 pm", "Chess until 8 pm"},
      {"in another order, twice", "%2 %1 %2", "a", "b", "b a b"},
      {"an argument's own place stays", "%1 until %2", "%2%1", "x", "%2%1 until x"},
      {"a place without an argument stays", "%1 %3 %0", "a", "b", "a %3 %0"},
      {"a percent sign alone stays", "100% of %1%", "a", "b", "100% of a%"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(FormatLocalized(QString::fromLatin1(row.format),
                              {QString::fromLatin1(row.first), QString::fromLatin1(row.second)}),
              QString::fromLatin1(row.expected))
        << row.behaviour;
  }
}

}  // namespace
}  // namespace vardell
