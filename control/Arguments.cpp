#include "control/Arguments.h"

#include <QUuid>
#include <limits>

#include "Common Sources/Caps.h"
#include "control/LimitsKeys.h"
#include "limits/WatchedApps.h"

namespace vardell::control {
namespace {

struct Split {
  QStringList words;
  QMap<QString, QString> options;  // "--reason" -> text; flags -> empty
  QString problem;
};

bool TakesValue(const QString& option) {
  return option == QLatin1String("--control") || option == QLatin1String("--reason") ||
         option == QLatin1String("--id") || option == QLatin1String("--after");
}

bool IsFlag(const QString& option) {
  return option == QLatin1String("--json") || option == QLatin1String("--help") ||
         option == QLatin1String("--version");
}

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
      if (!(TakesValue(name) || (IsFlag(name) && equals < 0))) {
        split.problem = QStringLiteral("there is no option \"%1\"").arg(argument);
      } else if (split.options.contains(name)) {
        split.problem = QStringLiteral("%1 is given twice").arg(name);
      } else if (IsFlag(name)) {
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

QString TakeNames(const QStringList& words, Command* command) {
  if (!words.isEmpty()) {
    command->user = words[0];
    if (const QString problem = NameProblem(QStringLiteral("user name"), words[0]);
        !problem.isEmpty()) {
      return problem;
    }
  }
  if (words.size() > 1) {
    command->identifier = IdentifierOf(words[1]);
    return NameProblem(QStringLiteral("identifier"), words[1]);
  }
  return {};
}

QString TakeLimits(const QStringList& words, Command* command) {
  for (const QString& word : words) {
    const qsizetype equals = word.indexOf(QLatin1Char('='));
    if (equals < 1) {
      return QStringLiteral("\"%1\" is not KEY=VALUE").arg(word);
    }
    const QString key = word.left(equals);
    const ParsedValue parsed = ParseLimitsValue(key, word.mid(equals + 1));
    if (!parsed.problem.isEmpty()) {
      return parsed.problem;
    }
    if (command->limits.contains(key)) {
      return QStringLiteral("\"%1\" is given twice").arg(key);
    }
    command->limits.insert(key, parsed.value);
  }
  return {};
}

QString TakeCredit(const QString& word, Command* command) {
  const ParsedValue parsed = ParseCredit(word);
  command->minutes = parsed.value.toInteger();
  return parsed.problem;
}

struct Shape {
  const char* words;
  Verb verb;
  int least, most;  // words after these
  const char* usage;
  const char* options;  // that it takes besides --json and --control
};

constexpr int kAny = std::numeric_limits<int>::max();
constexpr Shape kShapes[] = {
    {"status", Verb::Status, 0, 0, "status", ""},
    {"limits show", Verb::LimitsShow, 0, 2, "limits show [USER [IDENTIFIER]]", ""},
    {"limits set", Verb::LimitsSet, 3, kAny, "limits set USER IDENTIFIER KEY=VALUE...", ""},
    {"credit show", Verb::CreditShow, 1, 2, "credit show USER [IDENTIFIER]", ""},
    {"credit set", Verb::CreditSet, 3, 3,
     "credit set USER IDENTIFIER MINUTES [--reason TEXT] [--id ID]", "--reason --id"},
    {"ledger", Verb::Ledger, 0, 2, "ledger [USER [IDENTIFIER]] [--after N]", "--after"},
};

const Shape* FindShape(const QStringList& words, qsizetype* used) {
  for (const Shape& shape : kShapes) {
    const QStringList wanted = QString::fromLatin1(shape.words).split(QLatin1Char(' '));
    if (words.mid(0, wanted.size()) == wanted) {
      *used = wanted.size();
      return &shape;
    }
  }
  return nullptr;
}

QString TakeOptions(const Split& split, const Shape& shape, Command* command) {
  const QStringList taken = QString::fromLatin1(shape.options).split(QLatin1Char(' '));
  for (auto option = split.options.begin(); option != split.options.end(); ++option) {
    if (option.key() == QLatin1String("--json")) {
      command->json = true;
    } else if (option.key() == QLatin1String("--control")) {
      command->control = option.value();
    } else if (!taken.contains(option.key())) {
      return QStringLiteral("%1 does not go with \"%2\"")
          .arg(option.key(), QLatin1String(shape.words));
    }
  }
  command->reason = split.options.value(QStringLiteral("--reason"));
  command->id = split.options.value(QStringLiteral("--id"),
                                    QUuid::createUuid().toString(QUuid::WithoutBraces));
  const QString after = split.options.value(QStringLiteral("--after"), QStringLiteral("0"));
  bool isNumber = false;
  command->after = after.toLongLong(&isNumber);
  if (!isNumber || command->after < 0) {
    return QStringLiteral("--after wants the number of a ledger row, not \"%1\"").arg(after);
  }
  return command->id.isEmpty() ? QStringLiteral("--id is empty") : QString();
}

QString TakeWords(const QStringList& words, const Shape& shape, Command* command) {
  if (words.size() < shape.least || words.size() > shape.most) {
    return QStringLiteral("usage: vardellctl %1").arg(QLatin1String(shape.usage));
  }
  QString problem = TakeNames(words, command);
  if (problem.isEmpty() && shape.verb == Verb::LimitsSet) {
    problem = TakeLimits(words.mid(2), command);
  }
  if (problem.isEmpty() && shape.verb == Verb::CreditSet) {
    problem = TakeCredit(words[2], command);
  }
  return problem;
}

}  // namespace

ArgumentsResult ParseArguments(const QStringList& arguments) {
  const Split split = SplitOptions(arguments);
  Command command;
  if (split.options.contains(QStringLiteral("--help"))) {
    return {command, {}};
  }
  if (!split.problem.isEmpty()) {
    return {std::nullopt, split.problem};
  }
  if (split.options.contains(QStringLiteral("--version"))) {
    command.verb = Verb::Version;
    return {command, {}};
  }
  qsizetype used = 0;
  const Shape* shape = FindShape(split.words, &used);
  if (shape == nullptr) {
    return {std::nullopt, split.words.isEmpty()
                              ? QStringLiteral("say what to do")
                              : QStringLiteral("there is no command \"%1\"")
                                    .arg(split.words.mid(0, 2).join(QLatin1Char(' ')))};
  }
  command.verb = shape->verb;
  QString problem = TakeOptions(split, *shape, &command);
  if (problem.isEmpty()) {
    problem = TakeWords(split.words.mid(used), *shape, &command);
  }
  return problem.isEmpty() ? ArgumentsResult{command, {}} : ArgumentsResult{std::nullopt, problem};
}

QString HelpText() {
  QString text = QStringLiteral("Usage: vardellctl [--json] [--control PATH] COMMAND\n\n");
  for (const Shape& shape : kShapes) {
    text += QStringLiteral("  %1\n").arg(QLatin1String(shape.usage));
  }
  return text +
         QStringLiteral(
             "\nIDENTIFIER is an application's desktop file name without \".desktop\", or "
             "\"computer\"\nfor the whole session, or \"home\" for the home folder (\"DQ Enabled\" "
             "and \"DQ Value\" in MiB).\nLimits keys: %1.\n"
             "Curfew hours are minutes of the day or times: \"WD start=08:00\".\n\n"
             "  --json          print JSON\n"
             "  --control PATH  the Server's control socket "
             "(default /run/vardell/control.sock)\n"
             "  --help, --version\n\n"
             "Exit status: 0 done, 1 refused or failed, 2 wrong use, "
             "3 the Server cannot be reached.\n")
             .arg(LimitsKeys().join(QStringLiteral(", ")));
}

}  // namespace vardell::control
