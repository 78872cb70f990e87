#include <QCoreApplication>
#include <cstdio>

#include "Common Sources/TestHooks.h"
#include "control/Arguments.h"
#include "control/Commands.h"
#include "control/CompletionCommand.h"
#include "control/Terminal.h"

namespace {

using namespace vardell::control;

constexpr std::chrono::seconds kPatience{20};

int Print(const QString& text) {
  const QByteArray bytes = text.toUtf8();
  std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
  return std::fflush(stdout) == 0 ? 0 : 1;
}

int Complain(ExitStatus status, const QString& text) {
  std::fprintf(stderr, "vardellctl: %s\n", qUtf8Printable(text));
  return static_cast<int>(status);
}

QString UnreachableText(const QString& path, const QString& trouble) {
  return QStringLiteral(
             "the Server cannot be reached at %1: %2\n"
             "Start it (systemctl start vardell-server), or name its socket with --control.")
      .arg(path, trouble);
}

}  // namespace

int main(int argc, char* argv[]) {
  const QCoreApplication application(argc, argv);
  const ArgumentsResult parsed = ParseArguments(application.arguments().mid(1));
  if (!parsed.command) {
    return Complain(ExitStatus::Usage,
                    parsed.problem + QStringLiteral("\nvardellctl --help tells more."));
  }
  const Command& command = *parsed.command;
  if (command.verb == Verb::Help) {
    return Print(HelpText(command.about));
  }
  if (command.verb == Verb::Version) {
    return Print(QStringLiteral("vardellctl " VARDELL_VERSION "\n"));
  }
  const QString path = command.control.isEmpty()
                           ? vardell::ProductPath(QStringLiteral("/run/vardell/control.sock"))
                           : command.control;
  Terminal terminal;
  const auto patience = command.verb == Verb::Complete ? kCompletionPatience : kPatience;
  const Result result = Run(command, HttpClient(path, patience), terminal);
  terminal.EndProgress();
  const int printed = Print(result.output);
  if (result.status == ExitStatus::Done) {
    if (!result.notice.isEmpty()) (void)Complain(ExitStatus::Done, result.notice);
    return printed;
  }
  return Complain(result.status, result.status == ExitStatus::Unreachable
                                     ? UnreachableText(path, result.error)
                                     : result.error);
}
