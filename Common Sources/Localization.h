// Texts in the user's language. The English text, or a short name for it, is the key.
// Main thread; nothing blocks.
#pragma once

#include <QString>
#include <initializer_list>

class QCoreApplication;

namespace vardell {

// Loads the translations that are compiled into the program: English always, and over it the first
// of the user's languages that there is ("LANGUAGE" in its order, else "LC_ALL", "LC_MESSAGES",
// "LANG"; a variant such as fr_CA loads French; the machine need not have the locale). Once, after
// the application object was made, which then owns them.
void InstallTranslations(QCoreApplication& application);

// The text for the key; the key itself where no translation has it.
QString Localized(const char* key);

// `format` with %1 to %9 replaced by the arguments, all in one pass: a "%1" within an argument
// stays as it is, and so does a place without an argument.
QString FormatLocalized(const QString& format, std::initializer_list<QString> arguments);

}  // namespace vardell
