// Every command is told of wherever commands are: in the help, in the manual, in the completion.
#include <gtest/gtest.h>

#include <QFile>
#include <QRegularExpression>

#include "control/Arguments.h"
#include "control/Completion.h"
#include "tests/control/RunVardellctl.h"

namespace vardell::test {
namespace {

using control::CommandShape;
using control::CommandShapes;

// The manual's lines as they are read.
QStringList ManualLines() {
  QFile page(QStringLiteral(VARDELL_SOURCE_DIR "/docs/man/vardellctl.8"));
  EXPECT_TRUE(page.open(QIODevice::ReadOnly));
  QString text = QString::fromUtf8(page.readAll());
  text.remove(QRegularExpression(u"\\\\f[BRI]"_s)).replace(u"\\-"_s, u"-"_s);
  return text.split(u'\n');
}

TEST(Commands, EachIsInTheManualAsItIsInTheTable) {
  const QStringList lines = ManualLines();
  const qsizetype first = lines.indexOf(u".SH COMMANDS"_s);
  QStringList told;
  for (qsizetype i = first + 1; lines[i] != u".SH KEYS OF A LIMIT"_s; ++i) {
    if (lines[i - 1] == u".TP"_s) told.append(lines[i]);
  }
  QStringList inTable;
  for (const CommandShape& shape : CommandShapes()) inTable.append(shape.usage);
  told.sort();
  inTable.sort();
  EXPECT_EQ(told, inTable);
}

TEST(Commands, EachHasHelpWhoseExamplesAreRightAndWhoseOptionsAreExplained) {
  for (const CommandShape& shape : CommandShapes()) {
    SCOPED_TRACE(qPrintable(shape.usage));
    const QString help = control::HelpText(&shape);
    const QStringList examples = help.mid(help.indexOf(u"Examples:\n"_s)).split(u'\n').mid(1);
    EXPECT_GE(examples.size(), 2);
    for (const QString& example : examples) {
      if (example.isEmpty()) continue;
      QStringList words = QProcess::splitCommand(example);
      EXPECT_EQ(words.takeFirst(), u"vardellctl"_s);
      const auto parsed = control::ParseArguments(words);
      ASSERT_TRUE(parsed.command) << qPrintable(example + u": "_s + parsed.problem);
      EXPECT_EQ(parsed.command->verb, shape.verb);
    }
    for (const control::OptionShape& option : shape.options) {
      EXPECT_TRUE(help.contains(u"\n  "_s + option.name + u' ')) << qPrintable(option.name);
    }
  }
}

TEST(Commands, EachIsCompletedWithItsOptions) {
  for (const CommandShape& shape : CommandShapes()) {
    if (shape.verb == control::Verb::Complete) continue;
    SCOPED_TRACE(qPrintable(shape.usage));
    QStringList words;
    for (const QString& word : shape.words) {
      EXPECT_TRUE(control::Complete(words + QStringList{QString()}, {}).contains(word));
      words.append(word);
    }
    const QStringList options = control::Complete(words + QStringList{u"--"_s}, {});
    for (const control::OptionShape& option : shape.options) {
      EXPECT_TRUE(options.contains(option.name)) << qPrintable(option.name);
    }
    EXPECT_TRUE(options.contains(u"--json"_s));
  }
}

TEST(Commands, ACompletionThatTheServerKeepsWaitingEndsSoonAndWell) {
  const ScriptedHttpPeer server({ScriptedHttpPeer::kSilence});
  const auto start = std::chrono::steady_clock::now();
  const Outcome outcome =
      RunAt(server.path(), {u"complete"_s, u"--"_s, u"limits"_s, u"show"_s, u"anna"_s, u"comp"_s});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, u"computer\n"_s);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

}  // namespace
}  // namespace vardell::test
