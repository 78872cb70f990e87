// Text for a terminal, in columns. Pure functions.
#pragma once

#include <QString>
#include <QStringList>
#include <vector>

namespace vardell::control {

// The columns that a terminal takes for it: a combining character none, a wide one of East Asia
// two.
int TextWidth(const QString& text);

QString PaddedLeft(const QString& text, int width);
QString PaddedRight(const QString& text, int width);

// The first row is the header; numbers (all cells below the header) are aligned to the right.
QString AlignedTable(const std::vector<QStringList>& rows);

// Without control characters and what else would turn or hide text on a terminal.
QString Printable(const QString& text);

// A bar of `value` where `most` fills `cells` columns, without blanks behind it; what is not
// nothing is at least a trace. Eighths of a column, or whole '#' where they cannot be shown.
QString Bar(double value, double most, int cells, bool canShowBlocks);

}  // namespace vardell::control
