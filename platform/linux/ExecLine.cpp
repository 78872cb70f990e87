#include "platform/linux/ExecLine.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/linux/Interpreters.h"

namespace vardell {
namespace {

constexpr const char* kProgramFolders[] = {
    "/usr/local/sbin/", "/usr/local/bin/",   "/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/",
    "/usr/games/",      "/usr/local/games/", "/snap/bin/"};

QList<QByteArray> SplitWords(const QByteArray& line) {
  QList<QByteArray> words;
  QByteArray word;
  bool quoted = false;
  bool started = false;
  for (qsizetype i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '\\' && i + 1 < line.size()) {
      word += line[++i];
      started = true;
    } else if (c == '"') {
      quoted = !quoted;
      started = true;
    } else if ((c == ' ' || c == '\t') && !quoted) {
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

bool IsFieldCode(const QByteArray& word) {
  return word.size() == 2 && word[0] == '%' && word[1] != '%';
}

void DropEnv(QList<QByteArray>& words) {
  if (words.isEmpty() || BaseName(words.constFirst()) != "env") return;
  words.removeFirst();
  while (!words.isEmpty()) {
    const QByteArray& word = words.constFirst();
    if (!word.startsWith('-') && !word.contains('=')) return;
    const bool takesNext = word == "-u" || word == "-C" || word == "--unset" || word == "--chdir";
    words.removeFirst();
    if (takesNext && !words.isEmpty()) words.removeFirst();
  }
}

QByteArray RealPath(const QByteArray& path) {
  char resolved[PATH_MAX];
  struct stat status {};
  if (!realpath(path.constData(), resolved) || stat(resolved, &status) != 0) return {};
  return S_ISREG(status.st_mode) ? QByteArray(resolved) : QByteArray();
}

bool IsExecutableFile(const QByteArray& path) {
  struct stat status {};
  return stat(path.constData(), &status) == 0 && S_ISREG(status.st_mode) &&
         (status.st_mode & 0111) != 0;
}

}  // namespace

std::optional<ExecLine> ParseExecLine(const QString& exec) {
  QList<QByteArray> words = SplitWords(exec.toUtf8());
  DropEnv(words);
  if (words.isEmpty() || words.constFirst().isEmpty()) return std::nullopt;
  ExecLine line;
  line.program = words.takeFirst();
  for (QByteArray& word : words) {
    if (!IsFieldCode(word)) line.arguments.push_back(word.replace("%%", "%"));
  }
  return line;
}

QByteArray ResolveProgram(const QByteArray& program) {
  if (program.isEmpty()) return {};
  if (program.startsWith('/')) return RealPath(program);
  if (program.contains('/')) return {};
  for (const char* folder : kProgramFolders) {
    const QByteArray path = RealPath(folder + program);
    if (!path.isEmpty()) return path;
  }
  return {};
}

bool IsInstalledProgram(const QByteArray& program) {
  if (program.startsWith('/')) return IsExecutableFile(program);
  if (program.isEmpty() || program.contains('/')) return false;
  // Where most of them are: which of two it is does not matter here.
  return IsExecutableFile("/usr/bin/" + program) ||
         std::any_of(std::begin(kProgramFolders), std::end(kProgramFolders),
                     [&](const char* folder) { return IsExecutableFile(folder + program); });
}

bool IsScript(const QByteArray& path) {
  const int fd = open(path.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  char begin[2] = {};
  const bool isScript = read(fd, begin, 2) == 2 && begin[0] == '#' && begin[1] == '!';
  close(fd);
  return isScript;
}

}  // namespace vardell
