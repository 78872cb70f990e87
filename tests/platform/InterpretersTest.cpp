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
  for (const char* name : {"pythonic", "shotwell", "javaws-game", "perlbox", "bashful", ""}) {
    EXPECT_FALSE(IsInterpreter(name)) << name;
  }
}

TEST(ScriptArgument, ComesAfterTheInterpretersOwnOptions) {
  const struct {
    QList<QByteArray> words;
    const char* script;
  } rows[] = {
      {{"python3", "game.py", "-v"}, "game.py"},
      {{"python3", "-B", "-X", "calc.py", "game.py"}, "game.py"},
      {{"python3", "-BX", "calc.py", "game.py"}, "game.py"},
      {{"python3", "-Xdev", "game.py"}, "game.py"},
      {{"python3", "-c", "game.py"}, ""},
      {{"python3", "-m", "game"}, ""},
      {{"python3", "-", "game"}, ""},
      {{"sh", "-e", "+x", "-o", "posix", "game"}, "game"},
      {{"bash", "--rcfile", "x", "game"}, "game"},
      {{"sh", "-ec", "game"}, ""},
      {{"perl", "-w", "-I", "lib", "game.pl"}, "game.pl"},
      {{"java", "-cp", "x.jar", "-jar", "game.jar"}, "game.jar"},
      {{"python3", "--", "-game.py"}, "-game.py"},
      {{"python3", "-X"}, ""},
      {{"python3"}, ""},
      {{}, ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ScriptArgument(row.words.value(0), row.words), row.script)
        << row.words.join(' ').constData();
  }
}

TEST(ParseExecLine, SplitsQuotesAndDropsFieldCodes) {
  const struct {
    const char* exec;
    const char* program;
    QList<QByteArray> arguments;
  } rows[] = {
      {"chess", "chess", {}},
      {"/usr/bin/chess --level 3 %U", "/usr/bin/chess", {"--level", "3"}},
      {"\"/opt/My Game/run\" \"a \\\"b\\\" \\$c\"", "/opt/My Game/run", {"a \"b\" $c"}},
      {"env A=1 -u B chess 100%%", "chess", {"100%"}},
      {"  chess\t-x  ", "chess", {"-x"}},
      {"\"unended chess", "unended chess", {}},
  };
  for (const auto& row : rows) {
    const auto line = ParseExecLine(QString::fromUtf8(row.exec));
    ASSERT_TRUE(line) << row.exec;
    EXPECT_EQ(line->program, row.program);
    EXPECT_EQ(line->arguments, row.arguments) << row.exec;
  }
  for (const char* exec : {"", "   ", "\"\"", "env", "env A=1", "env -u"}) {
    EXPECT_FALSE(ParseExecLine(QString::fromUtf8(exec))) << exec;
  }
}

}  // namespace
}  // namespace vardell
