#include "platform/linux/Languages.h"

namespace vardell {
namespace {

QString FirstSet(std::initializer_list<const char*> variables) {
  for (const char* variable : variables) {
    const QString value = qEnvironmentVariable(variable);
    if (!value.isEmpty()) return value;
  }
  return {};
}

void AppendForms(QStringList& languages, const QString& locale) {
  const qsizetype at = locale.indexOf(u'@');
  const QString modifier = at < 0 ? QString() : locale.mid(at);
  const QString place = locale.left(at).section(u'.', 0, 0);
  const QString language = place.section(u'_', 0, 0);
  for (const QString& form : {place + modifier, place, language + modifier, language}) {
    if (!form.isEmpty() && !languages.contains(form)) languages.push_back(form);
  }
}

}  // namespace

QStringList MessageLanguages() {
  const QString locales = FirstSet({"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"});
  QStringList languages;
  for (const QString& locale : locales.split(u':', Qt::SkipEmptyParts)) {
    AppendForms(languages, locale);
  }
  return languages;
}

}  // namespace vardell
