#include "Common Sources/Localization.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTranslator>
#include <QXmlStreamReader>
#include <cstdlib>
#include <iostream>

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

struct Application {
  int argc = 1;
  char name[5] = "test";
  char* argv[2] = {name, nullptr};
  QCoreApplication application{argc, argv};
};

QString ReadSource(const QString& path) {
  QFile file(path);
  EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
  return QString::fromUtf8(file.readAll());
}

QSet<QString> Matches(const QString& text, const char* pattern) {
  QSet<QString> found;
  auto matches = QRegularExpression(QLatin1String(pattern)).globalMatch(text);
  while (matches.hasNext()) found.insert(matches.next().captured(1));
  return found;
}

QSet<QString> EnglishKeys() {
  QSet<QString> keys;
  QXmlStreamReader xml(ReadSource(QStringLiteral(VARDELL_SOURCE_DIR "/resources/vardell_en.ts")));
  while (!xml.atEnd()) {
    xml.readNext();
    if (xml.isStartElement() && xml.name() == QLatin1String("source"))
      keys.insert(xml.readElementText());
  }
  EXPECT_FALSE(xml.hasError());
  EXPECT_FALSE(keys.isEmpty());
  return keys;
}

QString AgentSources() {
  QString all;
  for (const char* folder : {"Common Sources", "core", "limits", "link", "platform", "ui"}) {
    QDirIterator files(QStringLiteral(VARDELL_SOURCE_DIR "/") + QLatin1String(folder),
                       {u"*.cpp"_s, u"*.h"_s}, QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) all += ReadSource(files.next());
  }
  return all;
}

TEST(LocalizationTest, EveryKeyThatTheAgentUsesHasAText) {
  const QSet<QString> keys = EnglishKeys();
  const QString sources = AgentSources();
  QSet<QString> used;
  for (const QString& call : Matches(sources, R"(\bLocalized\(([^)]*)\))"))
    used += Matches(call, R"re("([^"]*)")re");
  ASSERT_FALSE(used.isEmpty());
  for (const QString& key : used) EXPECT_TRUE(keys.contains(key)) << key.toStdString();
  for (const QString& key : keys)
    EXPECT_TRUE(sources.contains(u'"' + key + u'"')) << key.toStdString() << " is used nowhere";
}

TEST(LocalizationTest, EveryLanguageHasEveryTextWithTheSamePlacesAndItsOwnMarks) {
  Application application;
  InstallTranslations(application.application);
  const QStringList files = QDir(u":/i18n"_s).entryList();
  ASSERT_EQ(files.join(u' ').toStdString(),
            "vardell_de.qm vardell_en.qm vardell_es.qm vardell_fr.qm");
  const QSet<QString> keys = EnglishKeys();
  for (const QString& file : files) {
    QTranslator translator;
    ASSERT_TRUE(translator.load(u":/i18n/"_s + file));
    for (const QString& key : keys) {
      SCOPED_TRACE((file + u": "_s + key).toStdString());
      const QByteArray name = key.toUtf8();
      const QString text = translator.translate("Vardell", name.constData());
      const QString english = Localized(name.constData());
      EXPECT_FALSE(text.isEmpty());
      EXPECT_EQ(text, text.trimmed());
      EXPECT_EQ(Matches(text, "%(.)"), Matches(english, "%([12])"));
      EXPECT_FALSE(text.contains(QRegularExpression(u"['\"]|  "_s))) << "typewriter's marks";
      const char* const wrongBlank = file.contains(QLatin1String("_fr"))
                                         ? "[^\\x{202f}][:;!?]|\\x{202f}(?![:;!?])"
                                         : "\\s[:;!?]";
      EXPECT_FALSE(text.contains(QRegularExpression(QLatin1String(wrongBlank))));
    }
  }
}

// In a process of its own, since Qt reads the environment once.
[[noreturn]] void ShowLockCommand(const QByteArray& set) {
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) unsetenv(name);
  for (const QByteArray& word : set.split(' ')) {
    const qsizetype equals = word.indexOf('=');
    if (equals > 0) qputenv(word.first(equals), word.mid(equals + 1));
  }
  Application application;
  InstallTranslations(application.application);
  std::cerr << "<" << Localized("Lock computer").toStdString() << ">" << std::endl;
  std::_Exit(Localized("no such key") == QLatin1String("no such key") ? 0 : 1);
}

// The machines that run this have few locales or none: a language must not need one.
TEST(LocalizationDeathTest, TakesTheLanguageOfTheDesktop) {
  constexpr char kEnglish[] = "<Lock computer>";
  constexpr char kGerman[] = "<Computer sperren>";
  constexpr char kFrench[] = "<Verrouiller l’ordinateur>";
  constexpr char kSpanish[] = "<Bloquear el ordenador>";
  const char* const kRows[][3] = {
      {"nothing set", "", kEnglish},
      {"no language", "LANG=C", kEnglish},
      {"a language without texts", "LANG=fi_FI.UTF-8", kEnglish},
      {"no locale at all", "LANG=german", kEnglish},
      {"a variant", "LANG=de_AT.UTF-8", kGerman},
      {"an old code set", "LANG=de_DE@euro", kGerman},
      {"a variant overseas", "LANG=fr_CA", kFrench},
      {"messages before the rest", "LANG=de_DE.UTF-8 LC_MESSAGES=es_ES.UTF-8", kSpanish},
      {"all before messages", "LC_MESSAGES=es_ES.UTF-8 LC_ALL=fr_FR.UTF-8", kFrench},
      {"a list begins with its first", "LANG=fr_FR.UTF-8 LANGUAGE=de_AT:fr", kGerman},
      {"a list goes on to one that has texts", "LANG=fi_FI LANGUAGE=fi:fr_CA:de", kFrench},
      {"English has texts too", "LANG=de_DE.UTF-8 LANGUAGE=en_GB:de", kEnglish},
      {"an empty list", "LANG=de_DE.UTF-8 LANGUAGE=", kGerman},
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const auto& [what, set, shown] : kRows)
    EXPECT_EXIT(ShowLockCommand(set), testing::ExitedWithCode(0), shown) << what;
}

TEST(LocalizationTest, FillsInArgumentsInOnePass) {
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
