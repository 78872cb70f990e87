#include "control/UsageChart.h"

#include <QLocale>
#include <algorithm>
#include <functional>

#include "control/TextTable.h"

namespace vardell::control {
namespace {

constexpr int kMostBars = 62;
constexpr int kLeastCells = 10;
constexpr int kMostCells = 60;  // longer bars are no easier to compare
constexpr int kGap = 2;

QString HoursText(qint64 minutes) {
  return QStringLiteral("%1:%2").arg(minutes / 60).arg(minutes % 60, 2, 10, QLatin1Char('0'));
}

QString DayLabel(const QDate& day) {
  return QLocale::c().toString(day, QStringLiteral("ddd yyyy-MM-dd"));
}

QString Cut(const QString& text, int width) {
  if (TextWidth(text) <= width) return text;
  QString cut = text;
  while (TextWidth(cut) > width - 3) cut.chop(cut.back().isLowSurrogate() ? 2 : 1);
  return cut + QStringLiteral("...");
}

struct Step {
  QString format;
  std::function<QDate(const QDate&)> begin;  // of what a day falls into
  std::function<QDate(const QDate&)> next;
};

Step StepFor(const QDate& first, const QDate& last) {
  if (first.daysTo(last) < kMostBars) {
    return {
        {}, [](const QDate& day) { return day; }, [](const QDate& day) { return day.addDays(1); }};
  }
  const int months = (last.year() - first.year()) * 12 + last.month() - first.month();
  if (months < kMostBars) {
    return {QStringLiteral("yyyy-MM"),
            [](const QDate& day) { return QDate(day.year(), day.month(), 1); },
            [](const QDate& day) { return day.addMonths(1); }};
  }
  return {QStringLiteral("yyyy"), [](const QDate& day) { return QDate(day.year(), 1, 1); },
          [](const QDate& day) { return day.addYears(1); }};
}

}  // namespace

std::vector<UsageBar> BarsOverTime(const UsageDays& days, const QDate& first, const QDate& last) {
  if (!first.isValid() || !last.isValid()) return {};
  const Step step = StepFor(first, last);
  UsageDays sums;
  for (auto day = days.lowerBound(first); day != days.end() && day.key() <= last; ++day) {
    sums[step.begin(day.key())] += day.value();
  }
  std::vector<UsageBar> bars;
  for (QDate day = step.begin(first); day <= last; day = step.next(day)) {
    bars.push_back(
        {step.format.isEmpty() ? DayLabel(day) : day.toString(step.format), sums.value(day)});
  }
  return bars;
}

QString BarChart(const std::vector<UsageBar>& bars, int width, bool canShowBlocks) {
  qint64 most = 0;
  int labels = 0;
  for (const UsageBar& bar : bars) {
    most = std::max(most, bar.minutes);
    labels = std::max(labels, TextWidth(bar.label));
  }
  labels = std::min(labels, std::max(width / 2, kLeastCells));
  const int hours = TextWidth(HoursText(most));
  const int cells = std::clamp(width - labels - hours - 2 * kGap, kLeastCells, kMostCells);
  QString text;
  for (const UsageBar& bar : bars) {
    const QString label = Cut(bar.label, labels);
    if (bar.minutes > 0) {
      text +=
          PaddedRight(label, labels + kGap) + PaddedLeft(HoursText(bar.minutes), hours) +
          QString(kGap, QLatin1Char(' ')) +
          Bar(static_cast<double>(bar.minutes), static_cast<double>(most), cells, canShowBlocks);
    } else {
      text += label;
    }
    text += QLatin1Char('\n');
  }
  return text;
}

}  // namespace vardell::control
