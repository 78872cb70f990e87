#include "control/Arguments.h"
#include "control/LimitsKeys.h"

namespace vardell::control {
namespace {

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

QString HelpOfOne(const CommandShape& shape) {
  QString text = QStringLiteral("Usage: vardellctl %1\n\n%2%3.\n")
                     .arg(shape.usage, shape.summary.left(1).toUpper(), shape.summary.mid(1));
  if (shape.words[0] == QLatin1String("limits")) {
    text += QStringLiteral(
                "\nKeys: %1.\nHours of a curfew are times or minutes of the day: "
                "\"WD start=08:00\".\n")
                .arg(LimitsKeys().join(QStringLiteral(", ")));
  }
  return text;
}

}  // namespace

QString HelpText(const CommandShape* about) {
  return about ? HelpOfOne(*about) : HelpOfAll();
}

}  // namespace vardell::control
