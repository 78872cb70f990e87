#include "Common Sources/Diagnostics.h"

#include <cstdio>

namespace vardell {

namespace {

void Print(std::FILE* stream, QString text) {
  for (QChar& c : text) {
    if (c.category() == QChar::Other_Control) c = u'?';
  }
  const QByteArray line = text.toUtf8() + '\n';
  std::fwrite(line.constData(), 1, static_cast<std::size_t>(line.size()), stream);
  std::fflush(stream);
}

}  // namespace

void PrintLine(const QString& text) {
  Print(stdout, text);
}

void PrintErrorLine(const QString& text) {
  Print(stderr, text);
}

}  // namespace vardell
