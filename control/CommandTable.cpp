#include "control/CommandTable.h"

#include <algorithm>

namespace vardell::control {
namespace {

struct Line {
  Verb verb;
  const char* usage;
  const char* summary;
};

// Capitals are arguments, [brackets] may be left out, three dots may be repeated.
constexpr Line kLines[] = {
    {Verb::Status, "status", "the Server, its store, its publication, and the connected agents"},
    {Verb::Metrics, "metrics", "what the Server has counted, for a monitoring system"},
    {Verb::AppsList, "apps list [--rescan]", "the installed applications and their identifiers"},
    {Verb::AppsAdd, "apps add PATH", "puts one more application on that list"},
    {Verb::AppsRunning, "apps running [USER]", "what people are running now, as the agents see it"},
    {Verb::LimitsShow, "limits show [USER [IDENTIFIER]]", "limits in a table, or all keys of one"},
    {Verb::LimitsSet, "limits set USER IDENTIFIER KEY=VALUE...", "makes a limit, or changes it"},
    {Verb::LimitsUnset, "limits unset USER IDENTIFIER [KEY...]",
     "takes keys back to what they were at first, or removes the limit"},
    {Verb::LimitsPreset, "limits preset [USER IDENTIFIER PRESET [KEY=VALUE...]]",
     "sets several keys at once; alone it lists the presets"},
    {Verb::ScheduleShow, "schedule show USER IDENTIFIER", "at which hours it may be used"},
    {Verb::ScheduleSet, "schedule set USER IDENTIFIER HOURS...",
     "sets the hours of each day of the week, and of holidays"},
    {Verb::ScheduleClear, "schedule clear USER IDENTIFIER", "allows all hours again"},
    {Verb::CreditShow, "credit show USER [IDENTIFIER]", "the minutes that are left"},
    {Verb::CreditSet, "credit set USER IDENTIFIER MINUTES [--reason TEXT] [--id ID]",
     "makes the credit that many minutes"},
    {Verb::CreditAdd, "credit add USER IDENTIFIER MINUTES [--reason TEXT] [--id ID]",
     "adds minutes to the credit, or with a minus takes them away"},
    {Verb::Usage, "usage USER [IDENTIFIER] [--period today|week|month|all] [--csv]",
     "the time that was used, day by day"},
    {Verb::Ledger, "ledger [USER [IDENTIFIER]] [--after N]", "every change of credit, and why"},
    {Verb::SettingsShow, "settings show", "how the agents of this machine behave"},
    {Verb::SettingsSet, "settings set KEY=VALUE...", "changes that"},
    {Verb::SettingsUnset, "settings unset KEY...", "goes back to the usual behaviour"},
    {Verb::Backup, "backup FILE", "writes limits, credit, usage and settings into a file"},
    {Verb::Restore, "restore FILE [--check] [--yes]", "checks such a file, and puts it in place"},
    {Verb::Complete, "complete [WORD...]", "what the last word may become, for shells"},
};

CommandShape ParseUsage(const Line& line) {
  CommandShape shape{line.verb, QLatin1String(line.usage), QLatin1String(line.summary), {}, {}, {}};
  QStringList tokens = shape.usage.split(QLatin1Char(' '));
  while (!tokens.isEmpty()) {
    QString token = tokens.takeFirst();
    const bool isOptional = token.startsWith(QLatin1Char('['));
    const bool closes = token.endsWith(QLatin1Char(']'));
    token.remove(QLatin1Char('[')).remove(QLatin1Char(']'));
    if (token.startsWith(QLatin1String("--"))) {
      const QString value = closes ? QString() : tokens.takeFirst().remove(QLatin1Char(']'));
      shape.options.push_back({token, value});
    } else if (!token[0].isUpper()) {
      shape.words.append(token);
    } else {
      const bool isRepeated = token.endsWith(QLatin1String("..."));
      if (isRepeated) token.chop(3);
      shape.arguments.push_back({token, isOptional, isRepeated});
    }
  }
  return shape;
}

}  // namespace

const std::vector<CommandShape>& CommandShapes() {
  static const std::vector<CommandShape> kShapes = [] {
    std::vector<CommandShape> shapes;
    for (const Line& line : kLines) shapes.push_back(ParseUsage(line));
    return shapes;
  }();
  return kShapes;
}

const std::vector<OptionShape>& CommonOptions() {
  static const std::vector<OptionShape> kOptions = {
      {QStringLiteral("--json"), {}},
      {QStringLiteral("--control"), QStringLiteral("PATH")},
      {QStringLiteral("--help"), {}},
      {QStringLiteral("--version"), {}},
  };
  return kOptions;
}

const OptionShape* FindOption(const QString& name) {
  const auto findIn = [&](const std::vector<OptionShape>& options) -> const OptionShape* {
    const auto found = std::ranges::find(options, name, &OptionShape::name);
    return found == options.end() ? nullptr : &*found;
  };
  const OptionShape* found = findIn(CommonOptions());
  for (const CommandShape& shape : CommandShapes()) {
    if (!found) found = findIn(shape.options);
  }
  return found;
}

const CommandShape* FindCommand(const QStringList& words, qsizetype* used) {
  for (const CommandShape& shape : CommandShapes()) {
    if (words.mid(0, shape.words.size()) == shape.words) {
      *used = shape.words.size();
      return &shape;
    }
  }
  return nullptr;
}

}  // namespace vardell::control
