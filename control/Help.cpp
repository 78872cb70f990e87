#include <algorithm>

#include "control/Arguments.h"
#include "control/LimitsKeys.h"
#include "control/SettingsKeys.h"

namespace vardell::control {
namespace {

constexpr int kLineWidth = 88;

constexpr char kEnding[] =
    "\nUSER is a login name. IDENTIFIER is one of \"apps list\", \"computer\" for the whole "
    "session,\n"
    "or \"home\" for the home folder (keys \"DQ Enabled\" and \"DQ Value\", in MiB).\n"
    "\n"
    "  --json          print JSON\n"
    "  --control PATH  the Server's control socket (default /run/vardell/control.sock)\n"
    "  --help          show this; behind a command, more about that one\n"
    "  --version       show the version\n"
    "\n"
    "Exit status: 0 done, 1 refused or failed, 2 wrong use, 3 the Server cannot be reached.\n";

struct OptionHelp {
  const char* name;
  const char* text;
};

constexpr OptionHelp kOptions[] = {
    {"--rescan", "look for newly installed applications first"},
    {"--reason", "why, for the ledger"},
    {"--id", "the name of this change; the Server does it once, however often it is asked"},
    {"--period", "today, the last 8 days, the last 31 days, or all days; a week without this"},
    {"--csv", "print comma-separated lines: user, identifier, day, minutes"},
    {"--after", "only rows behind row N"},
    {"--check", "only say what would change"},
    {"--yes", "do not ask"},
};

struct CommandHelp {
  Verb verb;
  const char* text;
  const char* examples;  // a line each
};

constexpr CommandHelp kCommands[] = {
    {Verb::Status,
     "Tells which Server answers, where it keeps what it knows and whether that can be reached,\n"
     "whether the Server is announced on the network, and which agents are connected with which\n"
     "applications.\n",
     "vardellctl status\nvardellctl --json status\n"},
    {Verb::Metrics,
     "Prints the text format of Prometheus. No user and no identifier is named in it.\n",
     "vardellctl metrics\nvardellctl --json metrics\n"},
    {Verb::AppsList,
     "IDENTIFIER is what the other commands take. The list is made once and kept.\n",
     "vardellctl apps list\nvardellctl apps list --rescan\n"},
    {Verb::AppsAdd, "PATH is a program, or a .desktop file that the menus do not show.\n",
     "vardellctl apps add /opt/game/bin/game\n"},
    {Verb::AppsRunning,
     "Shows what a limit would have to name. Root sees everybody, others see themselves.\n",
     "vardellctl apps running\nvardellctl apps running anna\n"},
    {Verb::LimitsShow, "Without an identifier there is one line for each limit.\n",
     "vardellctl limits show\nvardellctl limits show anna firefox-esr\n"},
    {Verb::LimitsSet,
     "All of the keys are changed or none. A new limit is enabled, and has no credit until some\n"
     "is given. It counts when its application is started next, \"computer\" at the next login.\n",
     "vardellctl limits set anna firefox-esr Credit=60 \"WD Curfew Enabled=yes\" "
     "\"WD start=15:00\"\n"
     "vardellctl limits set anna home \"DQ Enabled=yes\" \"DQ Value=20000\"\n"},
    {Verb::LimitsUnset,
     "Without keys the limit goes, and its credit with it. \"Credit\" is no key to unset.\n",
     "vardellctl limits unset anna firefox-esr \"WD Curfew Enabled\"\n"
     "vardellctl limits unset anna firefox-esr\n"},
    {Verb::LimitsPreset, "Keys behind the preset take the place of its own.\n",
     "vardellctl limits preset\nvardellctl limits preset anna computer school-day \"WD "
     "stop=18:00\"\n"},
    {Verb::ScheduleShow,
     "What is shown can be kept in a file (put > hours.txt behind the command), changed\n"
     "there, and set from there.\n",
     "vardellctl schedule show anna computer\n"},
    {Verb::ScheduleSet,
     "HOURS are lines of days with their times, each in quotes, or one FILE of such lines,\n"
     "or - for standard input. Days are \"monday\", \"monday-friday\", \"saturday,sunday\" or\n"
     "\"daily\". Times are \"15:00-20:00\" (several are fine, and past midnight:\n"
     "\"20:00-01:00\"), \"all-day\" or \"closed\". Days that are not named are closed. A holiday\n"
     "has a name and dates, and counts instead of the days of the week. All that was said\n"
     "before is replaced. It warns 5 minutes and 1 minute before an end, as when credit ends.\n",
     "vardellctl schedule set anna computer \"monday-friday 15:00-20:00\" \"weekends 9:00-22:00\"\n"
     "vardellctl schedule set anna chromium \"daily 15-20\" \"holiday Summer "
     "2027-07-01..2027-08-31 9-12 20-1\"\n"
     "vardellctl schedule set anna computer hours.txt\n"},
    {Verb::ScheduleClear, "The limit stays, with its credit and its other keys.\n",
     "vardellctl schedule clear anna computer\n"},
    {Verb::CreditShow, "Home folders have no credit.\n",
     "vardellctl credit show anna\nvardellctl credit show anna computer\n"},
    {Verb::CreditSet, "What was left before does not count any more.\n",
     "vardellctl credit set anna firefox-esr 45\n"},
    {Verb::CreditAdd,
     "Credit does not fall below 0. With an id of your own a command can be repeated without\n"
     "doing it twice.\n",
     "vardellctl credit add anna firefox-esr 30 --reason \"tidied up\"\n"
     "vardellctl credit add anna computer -15\n"
     "vardellctl credit add anna computer 60 --id birthday\n"},
    {Verb::Usage,
     "Days are the Server's. Of one identifier each day has a bar; more than 62 days are shown by\n"
     "month. Without an identifier each of them has a bar, the session first.\n",
     "vardellctl usage anna\nvardellctl usage anna firefox-esr --period month\n"
     "vardellctl usage anna --period all --csv\n"},
    {Verb::Ledger,
     "CLAIMED is the credit that an agent's report said. At most 50000 rows are shown at once.\n",
     "vardellctl ledger anna firefox-esr\nvardellctl ledger --after 1200\n"},
    {Verb::SettingsShow, "The settings are those of this machine; each machine has its own.\n",
     "vardellctl settings show\n"},
    {Verb::SettingsSet, "Agents read them when a session begins.\n",
     "vardellctl settings set Configuration=retry \"Auto Hide Alerts=on\"\n"
     "vardellctl settings set \"Non-watched account=mother\"\n"},
    {Verb::SettingsUnset, "Agents read the settings when a session begins.\n",
     "vardellctl settings unset Server\n"},
    {Verb::Backup,
     "The file is read back before it counts as written. It is for root's eyes only.\n",
     "vardellctl backup /var/backups/vardell\n"},
    {Verb::Restore,
     "The file is checked as a whole, what would change is shown, and you are asked. What was\n"
     "there before is kept in a file beside it.\n",
     "vardellctl restore /var/backups/vardell --check\n"
     "vardellctl restore /var/backups/vardell --yes\n"},
    {Verb::Complete,
     "The completions of bash and zsh call this. It prints a candidate on each line, or "
     "\"<files>\"\n"
     "for the name of a file, and never fails.\n",
     "vardellctl complete -- limits show an\n"},
};

QString HelpOfAll() {
  QString text = QStringLiteral(
      "Usage: vardellctl [--json] [--control PATH] COMMAND\n"
      "Limits, credit and usage of the people of a Vardell Server, and the settings of its "
      "agents.\n"
      "\n");
  QString group;
  for (const CommandShape& shape : CommandShapes()) {
    const QString itsGroup = shape.words.size() > 1 ? shape.words[0] : QString();
    if (itsGroup != group) text += QLatin1Char('\n');
    group = itsGroup;
    text += QStringLiteral("  %1\n        %2\n").arg(shape.usage, shape.summary);
  }
  return text + QLatin1String(kEnding);
}

QString OptionsText(const CommandShape& shape) {
  QString text;
  for (const OptionShape& option : shape.options) {
    const bool isWord = !option.value.isEmpty() && !option.value.contains(QLatin1Char('|'));
    const QString name = isWord ? option.name + QLatin1Char(' ') + option.value : option.name;
    const auto found = std::ranges::find_if(
        kOptions, [&](const OptionHelp& help) { return option.name == QLatin1String(help.name); });
    if (found == std::end(kOptions)) continue;
    text += QStringLiteral("  %1  %2\n").arg(name, -13).arg(QLatin1String(found->text));
  }
  return text.isEmpty() ? text : QLatin1Char('\n') + text;
}

QString Wrapped(const QString& start, const QStringList& items) {
  QString text;
  QString line = start;
  for (const QString& item : items) {
    if (line.size() + item.size() > kLineWidth) {
      text += line + QLatin1Char('\n');
      line = QString(start.size(), QLatin1Char(' '));
    }
    line += item + (item == items.last() ? QStringLiteral(".") : QStringLiteral(", "));
  }
  return text + line + QLatin1Char('\n');
}

QString KeysText(const CommandShape& shape) {
  QStringList keys;
  if (shape.words[0] == QLatin1String("settings")) {
    for (const SettingKey& key : AllSettingKeys()) keys.append(QLatin1String(key.name));
  } else if (shape.words[0] == QLatin1String("limits")) {
    keys = LimitsKeys();
  }
  const bool hasHours = keys.contains(QStringLiteral("WD start"));
  if (keys.isEmpty()) return {};
  return QLatin1Char('\n') + Wrapped(QStringLiteral("Keys: "), keys) +
         (hasHours ? QStringLiteral("Hours are times or minutes of the day: \"WD start=08:00\".\n")
                   : QString());
}

QString HelpOfOne(const CommandShape& shape) {
  QString text = QStringLiteral("Usage: vardellctl %1\n\n%2%3.\n")
                     .arg(shape.usage, shape.summary.left(1).toUpper(), shape.summary.mid(1));
  QString examples;
  for (const CommandHelp& help : kCommands) {
    if (help.verb != shape.verb) continue;
    text += QLatin1String(help.text);
    for (const QString& line : QString::fromLatin1(help.examples).trimmed().split(u'\n')) {
      examples += QStringLiteral("  %1\n").arg(line);
    }
  }
  return text + OptionsText(shape) + KeysText(shape) + QStringLiteral("\nExamples:\n") + examples;
}

}  // namespace

QString HelpText(const CommandShape* about) {
  return about ? HelpOfOne(*about) : HelpOfAll();
}

}  // namespace vardell::control
