#include "control/TextTable.h"

#include <algorithm>
#include <cmath>

#include "Common Sources/PrintableText.h"

namespace vardell::control {
namespace {

struct Range {
  char32_t first;
  char32_t last;
};

constexpr Range kWide[] = {
    {0x1100, 0x115f},   {0x2e80, 0x303e},   {0x3041, 0x4dbf},   {0x4e00, 0xa4cf},
    {0xa960, 0xa97c},   {0xac00, 0xd7a3},   {0xf900, 0xfaff},   {0xfe30, 0xfe6f},
    {0xff01, 0xff60},   {0xffe0, 0xffe6},   {0x1f300, 0x1f64f}, {0x1f680, 0x1f6ff},
    {0x1f900, 0x1f9ff}, {0x20000, 0x3fffd},
};

int CharacterWidth(char32_t character) {
  switch (QChar::category(character)) {
    case QChar::Mark_NonSpacing:
    case QChar::Mark_Enclosing:
    case QChar::Other_Format:
      return 0;
    default:
      break;
  }
  const bool isWide = std::any_of(std::begin(kWide), std::end(kWide), [&](const Range& range) {
    return character >= range.first && character <= range.last;
  });
  return isWide ? 2 : 1;
}

bool IsNumber(const QString& cell) {
  bool number = false;
  (void)cell.toLongLong(&number);
  return number || cell == QLatin1String("-");
}

struct Column {
  int width = 0;
  bool numbers = true;
};

std::vector<Column> Measure(const std::vector<QStringList>& rows) {
  std::vector<Column> columns;
  for (std::size_t row = 0; row < rows.size(); ++row) {
    columns.resize(std::max(columns.size(), static_cast<std::size_t>(rows[row].size())));
    for (qsizetype i = 0; i < rows[row].size(); ++i) {
      Column& column = columns[static_cast<std::size_t>(i)];
      column.width = std::max(column.width, TextWidth(rows[row][i]));
      column.numbers = column.numbers && (row == 0 || IsNumber(rows[row][i]));
    }
  }
  return columns;
}

QString Blanks(int count) {
  return QString(std::max(count, 0), QLatin1Char(' '));
}

}  // namespace

int TextWidth(const QString& text) {
  int width = 0;
  for (const char32_t character : text.toUcs4()) {
    width += CharacterWidth(character);
  }
  return width;
}

QString PaddedLeft(const QString& text, int width) {
  return Blanks(width - TextWidth(text)) + text;
}

QString PaddedRight(const QString& text, int width) {
  return text + Blanks(width - TextWidth(text));
}

QString AlignedTable(const std::vector<QStringList>& rows) {
  const std::vector<Column> columns = Measure(rows);
  QString text;
  for (const QStringList& row : rows) {
    QString line;
    for (qsizetype i = 0; i < row.size(); ++i) {
      const Column& column = columns[static_cast<std::size_t>(i)];
      line += i == 0 ? QString() : QStringLiteral("  ");
      line += column.numbers ? PaddedLeft(row[i], column.width) : PaddedRight(row[i], column.width);
    }
    while (line.endsWith(QLatin1Char(' '))) {
      line.chop(1);
    }
    text += line + QLatin1Char('\n');
  }
  return text;
}

QString Printable(const QString& text) {
  QList<uint> clean = text.toUcs4();
  for (uint& character : clean) {
    if (!IsPrintable(character)) character = QChar::ReplacementCharacter;
  }
  return QString::fromUcs4(reinterpret_cast<const char32_t*>(clean.constData()), clean.size());
}

QString Bar(double value, double most, int cells, bool canShowBlocks) {
  if (value <= 0 || most <= 0 || cells <= 0) return {};
  const int parts = canShowBlocks ? 8 : 1;
  const double share = std::min(value / most, 1.0);
  const int filled = std::max(static_cast<int>(std::floor(share * cells * parts)), 1);
  QString bar(filled / parts, canShowBlocks ? QChar(0x2588) : QLatin1Char('#'));
  if (filled % parts != 0) bar += QChar(0x2590 - filled % parts);
  return bar;
}

}  // namespace vardell::control
