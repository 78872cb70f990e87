#include "platform/linux/Interpreters.h"

#include <gtest/gtest.h>

#include "platform/linux/ExecLine.h"

namespace vardell {
namespace {

TEST(IsInterpreter, KnowsVersionsAndPaths) {
  for (const char* name : {"python3.11", "/usr/bin/python3", "perl5.36", "/bin/sh", "java", "env",
                           "busybox", "lua5.4", "php8.2"}) {
    EXPECT_TRUE(IsInterpreter(name)) << name;
  }
  for (const char* name : {"pythonic", "shotwell", "javaws-game", "perlbox", "bashful", ""})
    EXPECT_FALSE(IsInterpreter(name)) << name;
}

TEST(ScriptArgument, ComesAfterTheInterpretersOwnOptions) {
  const std::pair<QByteArray, const char*> rows[] = {
      {"python3 game.py -v", "game.py"},
      {"python3 -B -X calc.py game.py", "game.py"},
      {"python3 -BX calc.py game.py", "game.py"},
      {"python3 -Xdev game.py", "game.py"},
      {"python3 -c game.py", ""},
      {"python3 -m game", ""},
      {"python3 - game", ""},
      {"sh -e +x -o posix game", "game"},
      {"bash --rcfile x game", "game"},
      {"sh -ec game", ""},
      {"perl -w -I lib game.pl", "game.pl"},
      {"java -cp x.jar -jar game.jar", "game.jar"},
      {"python3 -- -game.py", "-game.py"},
      {"python3 -X", ""},
      {"python3", ""},
  };
  for (const auto& [line, script] : rows) {
    const QList<QByteArray> words = line.split(' ');
    EXPECT_EQ(ScriptArgument(words[0], words), script) << line.constData();
  }
  EXPECT_EQ(ScriptArgument({}, {}), "");
}

TEST(ParseExecLine, SplitsQuotesAndDropsFieldCodes) {
  const std::pair<const char*, QByteArray> rows[] = {
      {"chess", "chess"},
      {"/usr/bin/chess --level 3 %U", "/usr/bin/chess|--level|3"},
      {"\"/opt/My Game/run\" \"a \\\"b\\\" \\$c\"", "/opt/My Game/run|a \"b\" $c"},
      {"env A=1 -u B chess 100%%", "chess|100%"},
      {"  chess\t-x  ", "chess|-x"},
      {"\"unended chess", "unended chess"},
  };
  for (const auto& [exec, words] : rows) {
    const auto line = ParseExecLine(QString::fromUtf8(exec));
    ASSERT_TRUE(line) << exec;
    EXPECT_EQ((QList<QByteArray>{line->program} + line->arguments).join('|'), words);
  }
  for (const char* exec : {"", "   ", "\"\"", "env", "env A=1", "env -u"})
    EXPECT_FALSE(ParseExecLine(QString::fromUtf8(exec))) << exec;
}

}  // namespace
}  // namespace vardell
