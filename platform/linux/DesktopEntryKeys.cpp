#include "platform/linux/DesktopEntryKeys.h"

#include <QByteArrayView>
#include <array>
#include <cstring>

namespace vardell {
namespace {

// Values as they stand in the text; null where the key is not there.
struct Values {
  QByteArrayView type, name, exec, tryExec, windowClass, hidden, noDisplay, phase, onlyShowIn,
      notShowIn;
  QByteArrayView localName;
  qsizetype localRank = -1;  // of the language that localName is in; -1: none of them
};

struct Field {
  QByteArrayView key;
  QByteArrayView Values::*value;
};

constexpr std::array<Field, 10> kFields = {
    Field{"Type", &Values::type},
    {"Name", &Values::name},
    {"Exec", &Values::exec},
    {"TryExec", &Values::tryExec},
    {"StartupWMClass", &Values::windowClass},
    {"Hidden", &Values::hidden},
    {"NoDisplay", &Values::noDisplay},
    {"X-GNOME-Autostart-Phase", &Values::phase},
    {"OnlyShowIn", &Values::onlyShowIn},
    {"NotShowIn", &Values::notShowIn},
};

void TakeLocalName(Values& values, QByteArrayView language, QByteArrayView name,
                   const QStringList& languages) {
  const qsizetype last = values.localRank < 0 ? languages.size() : values.localRank;
  for (qsizetype rank = 0; rank < last && !name.isEmpty(); ++rank) {
    if (languages[rank] == QLatin1String(language.data(), language.size())) {
      values.localName = name;
      values.localRank = rank;
    }
  }
}

void Take(Values& values, QByteArrayView key, QByteArrayView value, const QStringList& languages) {
  if (key.endsWith(']')) {
    if (!key.startsWith("Name[")) return;
    TakeLocalName(values, key.sliced(5, key.size() - 6), value, languages);
    return;
  }
  for (const Field& field : kFields) {
    if (key != field.key) continue;
    if ((values.*field.value).isNull()) values.*field.value = value;
    return;
  }
}

// By its first letter, since most lines are translations of what is not asked for.
bool MayTell(QByteArrayView line) {
  return !line.isEmpty() && std::strchr("[TNESHXO \t", line.front()) != nullptr;
}

Values ReadMainGroup(QByteArrayView text, const QStringList& languages) {
  Values values;
  bool inside = false;
  for (qsizetype begin = 0; begin < text.size();) {
    const qsizetype newline = text.indexOf('\n', begin);
    const qsizetype end = newline < 0 ? text.size() : newline;
    const QByteArrayView whole = text.sliced(begin, end - begin);
    begin = end + 1;
    if (!MayTell(whole)) continue;
    const QByteArrayView line = whole.trimmed();
    if (line.startsWith('[')) {
      if (inside) break;
      inside = line == QByteArrayView("[Desktop Entry]");
    } else if (inside) {
      const qsizetype equals = line.indexOf('=');
      if (equals <= 0) continue;
      Take(values, line.first(equals).trimmed(), line.sliced(equals + 1).trimmed(), languages);
    }
  }
  return values;
}

QString Text(QByteArrayView value) {
  if (!value.contains('\\')) return QString::fromUtf8(value);
  QByteArray text;
  for (qsizetype i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      text += value[i];
      continue;
    }
    switch (const char c = value[++i]) {
      case 's':
        text += ' ';
        break;
      case 'n':
        text += '\n';
        break;
      case 't':
        text += '\t';
        break;
      case 'r':
        text += '\r';
        break;
      case '\\':
        text += c;
        break;
      default:
        (text += '\\') += c;
    }
  }
  return QString::fromUtf8(text);
}

// Entries of before 1.0 have "1".
bool Flag(QByteArrayView value) {
  return value == QByteArrayView("true") || value == QByteArrayView("1");
}

QStringList Names(QByteArrayView value) {
  return value.isEmpty() ? QStringList() : Text(value).split(u';', Qt::SkipEmptyParts);
}

}  // namespace

std::optional<DesktopEntryKeys> ReadDesktopEntryKeys(const QByteArray& text,
                                                     const QStringList& languages) {
  const Values values = ReadMainGroup(text, languages);
  const QByteArrayView name = values.localRank < 0 ? values.name : values.localName;
  if (values.type != QByteArrayView("Application")) return std::nullopt;
  if (!name.isValidUtf8() || !values.exec.isValidUtf8()) return std::nullopt;
  DesktopEntryKeys keys;
  keys.name = Text(name);
  keys.exec = Text(values.exec);
  keys.tryExec = Text(values.tryExec);
  keys.windowClass = Text(values.windowClass);
  keys.isHidden = Flag(values.hidden);
  keys.isDisplayed = !Flag(values.noDisplay);
  keys.isSessionPart =
      values.phase == QByteArrayView("WindowManager") || values.phase == QByteArrayView("Panel");
  keys.onlyShowIn = Names(values.onlyShowIn);
  keys.notShowIn = Names(values.notShowIn);
  return keys;
}

}  // namespace vardell
