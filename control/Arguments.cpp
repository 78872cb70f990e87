#include "control/Arguments.h"

#include <QUuid>

#include "Common Sources/Caps.h"
#include "control/LimitsKeys.h"
#include "control/Presets.h"
#include "control/ScheduleText.h"
#include "limits/WatchedApps.h"

namespace vardell::control {
namespace {

struct Split {
  QStringList words;
  QMap<QString, QString> options;  // "--reason" -> text; flags -> empty
  QString problem;
};

Split SplitOptions(const QStringList& arguments) {
  Split split;
  bool optionsOver = false;
  for (qsizetype i = 0; i < arguments.size(); ++i) {
    const QString argument = !optionsOver && arguments[i] == QLatin1String("-h")
                                 ? QStringLiteral("--help")
                                 : arguments[i];
    if (optionsOver || !argument.startsWith(QLatin1String("--"))) {
      split.words.append(argument);
    } else if (argument.size() == 2) {
      optionsOver = true;
    } else {
      const qsizetype equals = argument.indexOf(QLatin1Char('='));
      const QString name = argument.left(equals);
      const OptionShape* option = FindOption(name);
      const bool isFlag = option && option->value.isEmpty();
      if (!option || (isFlag && equals >= 0)) {
        split.problem = QStringLiteral("there is no option \"%1\"").arg(argument);
      } else if (split.options.contains(name)) {
        split.problem = QStringLiteral("%1 is given twice").arg(name);
      } else if (isFlag) {
        split.options.insert(name, QString());
      } else if (equals >= 0) {
        split.options.insert(name, argument.mid(equals + 1));
      } else if (i + 1 < arguments.size()) {
        split.options.insert(name, arguments[++i]);
      } else {
        split.problem = QStringLiteral("%1 wants a value").arg(name);
      }
    }
  }
  return split;
}

QString NameProblem(const QString& what, const QString& name) {
  if (name.isEmpty()) {
    return QStringLiteral("the %1 is empty").arg(what);
  }
  if (static_cast<std::size_t>(name.toUtf8().size()) > kMaxNameBytes) {
    return QStringLiteral("the %1 is longer than %2 bytes").arg(what).arg(kMaxNameBytes);
  }
  for (const QChar c : name) {
    if (c.category() == QChar::Other_Control || c == QChar::ReplacementCharacter) {
      return QStringLiteral("the %1 holds a character that it cannot have").arg(what);
    }
  }
  return {};
}

QString IdentifierOf(const QString& word) {
  if (word == QLatin1String("computer")) return QLatin1String(kLoginWindowIdentifier);
  if (word == QLatin1String("home")) return QLatin1String(kGlobalSettingsIdentifier);
  return word;
}

bool IsOfCredit(Verb verb) {
  return verb == Verb::CreditShow || verb == Verb::CreditSet || verb == Verb::CreditAdd;
}

QString TakePair(const QString& word, Command* command) {
  const qsizetype equals = word.indexOf(QLatin1Char('='));
  if (equals < 1) {
    return QStringLiteral("\"%1\" is not KEY=VALUE").arg(word);
  }
  const QString key = word.left(equals);
  if (command->limits.contains(key) || command->settings.contains(key)) {
    return QStringLiteral("\"%1\" is given twice").arg(key);
  }
  if (command->verb == Verb::SettingsSet) {
    command->settings.insert(key, word.mid(equals + 1));
    return {};
  }
  const ParsedValue parsed = ParseLimitsValue(key, word.mid(equals + 1));
  command->limits.insert(key, parsed.value);
  return parsed.problem;
}

QString TakeKey(const QString& word, Command* command) {
  command->keys.append(word);
  if (command->verb != Verb::LimitsUnset) return {};
  if (word == QLatin1String("Credit")) {
    return QStringLiteral("\"Credit\" cannot be unset; \"credit set\" changes it");
  }
  command->limits.insert(word, FirstLimitsValue(word));
  return FirstLimitsValue(word).isUndefined() ? ParseLimitsValue(word, {}).problem : QString();
}

QString PresetProblem(const QString& name) {
  if (FindPreset(name)) return {};
  QStringList names;
  for (const Preset& preset : Presets()) names.append(preset.name);
  return QStringLiteral("there is no preset \"%1\"; there are: %2")
      .arg(name, names.join(QStringLiteral(", ")));
}

QString TakeMinutes(const QString& word, Command* command) {
  const bool adds = command->verb == Verb::CreditAdd;
  const bool isNegative = adds && word.startsWith(QLatin1Char('-'));
  const bool isSigned = adds && (isNegative || word.startsWith(QLatin1Char('+')));
  const ParsedValue parsed = ParseCredit(isSigned ? word.mid(1) : word);
  command->minutes = parsed.value.toInteger() * (isNegative ? -1 : 1);
  if (adds && parsed.problem.isEmpty() && command->minutes == 0) {
    return QStringLiteral("adding 0 minutes changes nothing");
  }
  return parsed.problem;
}

bool IsOfSchedule(Verb verb) {
  return verb == Verb::ScheduleShow || verb == Verb::ScheduleSet || verb == Verb::ScheduleClear;
}

// One word may be the name of a file instead.
QString CheckHours(Command* command) {
  const QString& first = command->hours[0];
  const bool isName = first == QLatin1String("-") || first.contains(QLatin1Char('/')) ||
                      !first.contains(QLatin1Char(' '));
  if (command->hours.size() == 1 && isName && !IsScheduleLine(first)) {
    command->path = command->hours.takeFirst();
    return command->path.isEmpty() ? QStringLiteral("the name of the file is empty") : QString();
  }
  return ParseScheduleLines(command->hours).problem;
}

QString TakeWord(const QString& name, const QString& word, Command* command) {
  if (name == QLatin1String("USER")) {
    command->user = word;
    return NameProblem(QStringLiteral("user name"), word);
  }
  if (name == QLatin1String("IDENTIFIER")) {
    command->identifier = IdentifierOf(word);
    if (command->identifier == QLatin1String(kGlobalSettingsIdentifier) &&
        IsOfCredit(command->verb)) {
      return QStringLiteral("a home folder has no credit; \"limits set\" changes its quota");
    }
    if (command->identifier == QLatin1String(kGlobalSettingsIdentifier) &&
        IsOfSchedule(command->verb)) {
      return QStringLiteral("a home folder has no hours; \"limits set\" changes its quota");
    }
    return NameProblem(QStringLiteral("identifier"), word);
  }
  if (name == QLatin1String("KEY=VALUE")) return TakePair(word, command);
  if (name == QLatin1String("MINUTES")) return TakeMinutes(word, command);
  if (name == QLatin1String("KEY")) return TakeKey(word, command);
  if (name == QLatin1String("PRESET")) {
    command->preset = word;
    return PresetProblem(word);
  }
  if (name == QLatin1String("WORD")) command->words.append(word);
  if (name == QLatin1String("HOURS")) command->hours.append(word);
  if (name == QLatin1String("PATH") || name == QLatin1String("FILE")) {
    command->path = word;
    if (word.isEmpty()) return QStringLiteral("the name of the file is empty");
  }
  return {};
}

QString TakeWords(QStringList words, const CommandShape& shape, Command* command) {
  const QString usage = QStringLiteral("usage: vardellctl %1").arg(shape.usage);
  for (const ArgumentShape& argument : shape.arguments) {
    if (words.isEmpty()) return argument.isOptional ? QString() : usage;
    do {
      if (QString problem = TakeWord(argument.name, words.takeFirst(), command);
          !problem.isEmpty()) {
        return problem;
      }
    } while (argument.isRepeated && !words.isEmpty());
  }
  return words.isEmpty() ? QString() : usage;
}

QString OptionProblem(const CommandShape& shape, const QString& name, const QString& value) {
  for (const std::vector<OptionShape>& options : {CommonOptions(), shape.options}) {
    for (const OptionShape& option : options) {
      if (option.name != name) continue;
      const QStringList choices = option.value.split(QLatin1Char('|'));
      if (choices.size() < 2 || choices.contains(value)) return {};
      return QStringLiteral("%1 takes %2, not \"%3\"")
          .arg(name, choices.join(QStringLiteral(", ")), value);
    }
  }
  return QStringLiteral("%1 does not go with \"%2\"").arg(name, shape.words.join(QLatin1Char(' ')));
}

QString TakeOptions(const QMap<QString, QString>& options, const CommandShape& shape,
                    Command* command) {
  for (auto option = options.begin(); option != options.end(); ++option) {
    if (QString problem = OptionProblem(shape, option.key(), option.value()); !problem.isEmpty()) {
      return problem;
    }
  }
  const auto has = [&](const char* name) { return options.contains(QLatin1String(name)); };
  const auto value = [&](const char* name) { return options.value(QLatin1String(name)); };
  command->json = has("--json");
  command->csv = has("--csv");
  command->rescan = has("--rescan");
  command->check = has("--check");
  command->yes = has("--yes");
  command->control = value("--control");
  command->period = value("--period");
  command->reason = value("--reason");
  command->id = has("--id") ? value("--id") : QUuid::createUuid().toString(QUuid::WithoutBraces);
  if (command->id.isEmpty()) return QStringLiteral("--id is empty");
  if (!has("--after")) return {};
  bool isNumber = false;
  command->after = value("--after").toLongLong(&isNumber);
  if (isNumber && command->after >= 0) return {};
  return QStringLiteral("--after wants the number of a ledger row, not \"%1\"")
      .arg(value("--after"));
}

// The last word is not whole yet.
QString ControlAmong(const QStringList& words) {
  const QString option = QStringLiteral("--control");
  for (qsizetype i = 0; i + 1 < words.size(); ++i) {
    if (words[i].startsWith(option + QLatin1Char('='))) return words[i].mid(option.size() + 1);
    if (words[i] == option && i + 2 < words.size()) return words[i + 1];
  }
  return {};
}

QString UnknownCommand(const QStringList& words) {
  if (words.isEmpty()) return QStringLiteral("say what to do");
  QStringList inGroup;
  for (const CommandShape& shape : CommandShapes()) {
    if (shape.words[0] == words[0]) inGroup.append(shape.words.join(QLatin1Char(' ')));
  }
  if (inGroup.isEmpty()) return QStringLiteral("there is no command \"%1\"").arg(words[0]);
  return QStringLiteral("there is no command \"%1\"; there are: %2")
      .arg(words.mid(0, 2).join(QLatin1Char(' ')), inGroup.join(QStringLiteral(", ")));
}

}  // namespace

ArgumentsResult ParseArguments(const QStringList& arguments) {
  Command command;
  // The words of a half-written command line are not ours to judge.
  if (!arguments.isEmpty() && arguments[0] == QLatin1String("complete")) {
    command.verb = Verb::Complete;
    command.words = arguments.mid(arguments.value(1) == QLatin1String("--") ? 2 : 1);
    command.control = ControlAmong(command.words);
    return {command, {}, nullptr};
  }
  const Split split = SplitOptions(arguments);
  qsizetype used = 0;
  const CommandShape* shape = FindCommand(split.words, &used);
  if (split.options.contains(QStringLiteral("--help"))) {
    command.about = shape;
    return {command, {}, nullptr};
  }
  if (!split.problem.isEmpty()) {
    return {std::nullopt, split.problem, shape};
  }
  if (split.options.contains(QStringLiteral("--version"))) {
    command.verb = Verb::Version;
    return {command, {}, nullptr};
  }
  if (shape == nullptr) {
    return {std::nullopt, UnknownCommand(split.words), nullptr};
  }
  command.verb = shape->verb;
  QString problem = TakeOptions(split.options, *shape, &command);
  if (problem.isEmpty()) {
    problem = TakeWords(split.words.mid(used), *shape, &command);
  }
  if (problem.isEmpty() && command.verb == Verb::ScheduleSet) problem = CheckHours(&command);
  return problem.isEmpty() ? ArgumentsResult{command, {}, shape}
                           : ArgumentsResult{std::nullopt, problem, shape};
}

}  // namespace vardell::control
