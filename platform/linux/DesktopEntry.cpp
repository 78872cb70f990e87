#include "platform/linux/DesktopEntry.h"

#include <QHash>
#include <QStringDecoder>

#include "platform/linux/ExecLine.h"
#include "platform/linux/Interpreters.h"

namespace vardell {
namespace {

using Values = QHash<QString, QString>;

std::optional<QString> Decode(const QByteArray& text) {
  QStringDecoder decoder(QStringDecoder::Utf8);
  QString decoded = decoder(text);
  return decoder.hasError() ? std::nullopt : std::optional(decoded);
}

QString Unescape(const QString& value) {
  QString text;
  for (qsizetype i = 0; i < value.size(); ++i) {
    if (value[i] != QLatin1Char('\\') || i + 1 == value.size()) {
      text += value[i];
      continue;
    }
    switch (const QChar c = value[++i]; c.unicode()) {
      case 's':
        text += QLatin1Char(' ');
        break;
      case 'n':
        text += QLatin1Char('\n');
        break;
      case 't':
        text += QLatin1Char('\t');
        break;
      case 'r':
        text += QLatin1Char('\r');
        break;
      case '\\':
        text += c;
        break;
      default:
        (text += QLatin1Char('\\')) += c;
    }
  }
  return text;
}

Values ReadMainGroup(const QString& text) {
  Values values;
  bool inside = false;
  for (const QStringView raw : QStringView(text).split(QLatin1Char('\n'))) {
    const QStringView line = raw.trimmed();
    if (line.isEmpty() || line.startsWith(QLatin1Char('#'))) continue;
    if (line.startsWith(QLatin1Char('['))) {
      if (inside) break;
      inside = line == QLatin1String("[Desktop Entry]");
      continue;
    }
    const qsizetype equals = line.indexOf(QLatin1Char('='));
    if (!inside || equals <= 0) continue;
    const QString key = line.left(equals).trimmed().toString();
    if (!values.contains(key)) values.insert(key, line.mid(equals + 1).trimmed().toString());
  }
  return values;
}

QString Text(const Values& values, const char* key) {
  return Unescape(values.value(QString::fromLatin1(key)));
}

bool Flag(const Values& values, const char* key) {
  return values.value(QString::fromLatin1(key)) == QLatin1String("true");
}

QString LocalizedName(const Values& values, const QStringList& languages) {
  for (const QString& language : languages) {
    const QString name = values.value(QStringLiteral("Name[%1]").arg(language));
    if (!name.isEmpty()) return Unescape(name);
  }
  return Text(values, "Name");
}

bool IsPartOfSession(const Values& values) {
  const QString phase = values.value(QStringLiteral("X-GNOME-Autostart-Phase"));
  return phase == QLatin1String("WindowManager") || phase == QLatin1String("Panel");
}

void SetScript(DesktopEntry& entry, const QByteArray& path) {
  entry.script = path;
  entry.scriptFile = IdOfFile(path);
}

// What a running process of this entry will show of itself.
void SetProgram(DesktopEntry& entry, const ExecLine& exec) {
  entry.arguments = exec.arguments;
  if (IsLauncher(exec.program)) return;
  const QByteArray program = ResolveProgram(exec.program);
  if (IsInterpreter(exec.program) || IsInterpreter(program)) {
    const QByteArray script =
        ScriptArgument(exec.program, QList<QByteArray>{exec.program} + exec.arguments);
    SetScript(entry, ResolveProgram(script));
    if (!entry.script.isEmpty()) entry.baseName = BaseName(entry.script);
    return;
  }
  if (IsLauncher(program)) return;
  entry.baseName = BaseName(exec.program);
  entry.program = program;
  entry.programFile = IdOfFile(program);
  if (IsScript(program)) SetScript(entry, program);
}

}  // namespace

std::optional<DesktopEntry> ParseDesktopEntry(const QByteArray& text,
                                              const QStringList& languages) {
  const std::optional<QString> decoded = Decode(text);
  if (!decoded) return std::nullopt;
  const Values values = ReadMainGroup(*decoded);
  if (values.value(QStringLiteral("Type")) != QLatin1String("Application")) return std::nullopt;
  if (Flag(values, "Hidden")) return std::nullopt;
  const QString tryExec = Text(values, "TryExec");
  if (!tryExec.isEmpty() && ResolveProgram(tryExec.toUtf8()).isEmpty()) return std::nullopt;
  const std::optional<ExecLine> exec = ParseExecLine(Text(values, "Exec"));
  if (!exec) return std::nullopt;

  DesktopEntry entry;
  entry.name = LocalizedName(values, languages);
  if (entry.name.isEmpty()) return std::nullopt;
  entry.isShown = !Flag(values, "NoDisplay");
  entry.isSessionPart = IsPartOfSession(values);
  entry.windowClass = Text(values, "StartupWMClass");
  SetProgram(entry, *exec);
  return entry;
}

}  // namespace vardell
