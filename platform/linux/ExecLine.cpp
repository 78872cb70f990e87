#include "platform/linux/ExecLine.h"

#include <limits.h>
#include <stdlib.h>

#include <QFile>
#include <QList>

namespace vardell {
namespace {

QList<QByteArray> SplitWords(const QByteArray& line) {
  QList<QByteArray> words;
  QByteArray word;
  bool quoted = false;
  bool started = false;
  for (qsizetype i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '\\' && quoted && i + 1 < line.size()) {
      word += line[++i];
    } else if (c == '"') {
      quoted = !quoted;
      started = true;
    } else if (c == ' ' && !quoted) {
      if (started) words.push_back(std::exchange(word, {}));
      started = false;
    } else {
      word += c;
      started = true;
    }
  }
  if (started) words.push_back(word);
  return words;
}

bool IsEnv(const QByteArray& word) {
  return word == "env" || word.endsWith("/env");
}

}  // namespace

std::optional<ExecLine> ParseExecLine(const QString& exec) {
  QList<QByteArray> words = SplitWords(exec.toUtf8());
  if (!words.isEmpty() && IsEnv(words.constFirst())) {
    words.removeFirst();
    while (!words.isEmpty() &&
           (words.constFirst().contains('=') || words.constFirst().startsWith('-'))) {
      words.removeFirst();
    }
  }
  if (words.isEmpty() || words.constFirst().isEmpty()) return std::nullopt;
  ExecLine line{words.takeFirst(), {}};
  for (const QByteArray& word : words) {
    if (word.startsWith('-') || word.startsWith('%')) continue;
    line.firstArgument = word;
    break;
  }
  return line;
}

QByteArray ResolveProgram(const QByteArray& program) {
  if (program.isEmpty()) return {};
  QList<QByteArray> candidates;
  if (program.contains('/')) {
    candidates = {program};
  } else {
    for (const char* folder : {"/usr/local/bin/", "/usr/bin/", "/bin/", "/usr/local/games/",
                               "/usr/games/", "/snap/bin/"}) {
      candidates.push_back(folder + program);
    }
  }
  for (const QByteArray& candidate : candidates) {
    char resolved[PATH_MAX];
    if (candidate.startsWith('/') && realpath(candidate.constData(), resolved)) return resolved;
  }
  return {};
}

bool IsScript(const QByteArray& path) {
  QFile file(QFile::decodeName(path));
  return !path.isEmpty() && file.open(QIODevice::ReadOnly) && file.read(2) == "#!";
}

}  // namespace vardell
