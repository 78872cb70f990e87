#include <QCoreApplication>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Common Sources/TestHooks.h"
#include "control/Arguments.h"
#include "control/Commands.h"
#include "control/CompletionCommand.h"
#include "control/Terminal.h"

namespace {

using namespace vardell::control;

constexpr std::chrono::seconds kPatience{20};

int Complain(ExitStatus status, const QString& text) {
  std::fprintf(stderr, "vardellctl: %s\n", qUtf8Printable(text));
  return static_cast<int>(status);
}

int Print(const QString& text) {
  const QByteArray bytes = text.toUtf8();
  const auto size = static_cast<std::size_t>(bytes.size());
  if (std::fwrite(bytes.constData(), 1, size, stdout) == size && std::fflush(stdout) == 0) return 0;
  return Complain(ExitStatus::Failed,
                  QStringLiteral("what was to be shown could not be written: %1")
                      .arg(QString::fromLocal8Bit(std::strerror(errno))));
}

}  // namespace

int main(int argc, char* argv[]) {
  const QCoreApplication application(argc, argv);
  const ArgumentsResult parsed = ParseArguments(application.arguments().mid(1));
  if (!parsed.command) {
    const QString about = parsed.about ? parsed.about->words.join(QLatin1Char(' ')) : QString();
    return Complain(ExitStatus::Usage,
                    QStringLiteral("%1\nvardellctl %2 tells more.")
                        .arg(parsed.problem, (about + QStringLiteral(" --help")).trimmed()));
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
  return Complain(result.status, result.error);
}
