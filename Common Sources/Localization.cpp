#include "Common Sources/Localization.h"

#include <QCoreApplication>
#include <QLocale>
#include <QTranslator>

// Expands to declarations that must not stand in a namespace.
static void InitTranslationResource() {
  Q_INIT_RESOURCE(vardell_translations);
}

namespace vardell {

namespace {

void Install(QCoreApplication& application, const QLocale& locale) {
  auto* translator = new QTranslator(&application);
  if (translator->load(locale, QStringLiteral("vardell"), QStringLiteral("_"),
                       QStringLiteral(":/i18n"))) {
    application.installTranslator(translator);
  } else {
    delete translator;
  }
}

}  // namespace

void InstallTranslations(QCoreApplication& application) {
  InitTranslationResource();
  Install(application, QLocale(QLocale::English, QLocale::UnitedStates));
  Install(application, QLocale());
}

QString Localized(const char* key) {
  return QCoreApplication::translate("Vardell", key);
}

QString FormatLocalized(const QString& format, std::initializer_list<QString> arguments) {
  QString text;
  for (qsizetype i = 0; i < format.size(); ++i) {
    if (format[i] == u'%' && i + 1 < format.size()) {
      const std::size_t place = format[i + 1].unicode() - u'0';
      if (place >= 1 && place <= 9 && place <= arguments.size()) {
        text += arguments.begin()[place - 1];
        ++i;
        continue;
      }
    }
    text += format[i];
  }
  return text;
}

}  // namespace vardell
