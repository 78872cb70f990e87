#include "control/CreditCommands.h"

#include <cstdlib>

#include "control/Tables.h"

namespace vardell::control {
namespace {

Answer AskForCredit(const Command& command, const HttpClient& server, const QByteArray& method,
                    const QByteArray& resource) {
  const QJsonObject body{{QStringLiteral("minutes"), static_cast<qint64>(command.minutes)},
                         {QStringLiteral("id"), command.id},
                         {QStringLiteral("reason"), command.reason}};
  Answer answer = Ask(
      server, {method, LimitTarget(command.user, command.identifier) + resource, {}, Body(body)});
  if (answer.status == 0 && answer.wasReached) {
    answer.failure.error +=
        QStringLiteral("\nIt may have been done; the same command with --id %1 is safe to repeat.")
            .arg(ShellWord(command.id));
  }
  return answer;
}

// "anna, firefox-esr: 10 minutes added, 42 left."
QString AddedText(const Command& command, const QJsonObject& answer) {
  const qint64 added = answer[QStringLiteral("added")].toInteger();
  const bool takes = command.minutes < 0;
  QString text = QStringLiteral("%1: %2 %3")
                     .arg(Subject(command.user, command.identifier), MinutesText(std::abs(added)),
                          takes ? QStringLiteral("taken away") : QStringLiteral("added"));
  if (added != command.minutes) {
    text += QStringLiteral(" instead of %1").arg(std::abs(command.minutes));
  }
  return text + QStringLiteral(", %1 left.\n").arg(answer[QStringLiteral("credit")].toInteger());
}

}  // namespace

Result SetCredit(const Command& command, const HttpClient& server) {
  const Answer answer = AskForCredit(command, server, "PUT", "/credit");
  if (!answer.ok()) {
    return answer.failure;
  }
  return Done(command.json ? JsonText(answer.json) : CreditTable({answer.json}));
}

Result AddCredit(const Command& command, const HttpClient& server) {
  const Answer answer = AskForCredit(command, server, "POST", "/adjustments");
  if (!answer.ok()) {
    return answer.failure;
  }
  return Done(command.json ? JsonText(answer.json) : AddedText(command, answer.json));
}

}  // namespace vardell::control
