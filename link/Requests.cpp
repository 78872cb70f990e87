#include "link/Requests.h"

#include <signal.h>

#include <cstdio>

#include "Common Sources/PropertyList.h"
#include "link/MessageEncoding.h"
#include "link/RequestExchange.h"
#include "link/VardellLoader.h"

namespace vardell {

namespace {

constexpr int kAttempts = 2;
constexpr std::int16_t kQuerySeconds = 2;
constexpr std::int16_t kReportSeconds = 3;
constexpr std::int16_t kKillSeconds = 10;

QByteArray OneString(const QString& text) {
  QByteArray payload;
  AppendStringToData(payload, text);
  return payload;
}

QByteArray TwoStrings(const QString& first, const QString& second) {
  QByteArray payload;
  AppendStringToData(payload, first);
  AppendStringToData(payload, second);
  return payload;
}

// The reply's body, from whichever attempt brought one, be it empty.
std::optional<QByteArray> AskUntilAnswered(ServerLink& link, RequestKind kind,
                                           const QByteArray& payload) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    QByteArray reply;
    if (SendRequest(link, kind, payload, kQuerySeconds, true, &reply) == 0) return reply;
    ReconnectAfterDrop(link);
  }
  return std::nullopt;
}

std::optional<QVariantMap> ReadDictionary(const QByteArray& reply) {
  const std::optional<QVariant> value = ReadPropertyListXml(reply);
  if (!value || value->typeId() != QMetaType::QVariantMap) return std::nullopt;
  return value->toMap();
}

}  // namespace

QVariant CopyLimitsDictionary(ServerLink& link, const QString& userName,
                              const QString& appIdentifier) {
  const std::optional<QByteArray> reply =
      AskUntilAnswered(link, RequestKind::FetchLimits, TwoStrings(userName, appIdentifier));
  QVariant limits = QVariantMap();
  bool isAnswered = false;
  if (reply && !reply->isEmpty()) {
    limits = ReadPropertyListXml(*reply).value_or(QVariant());
    isAnswered = limits.typeId() == QMetaType::QVariantMap;
  }
  if (!isAnswered) link.replyMissed = true;
  return limits;
}

std::int32_t SendAppStarted(ServerLink& link, const QString& userName,
                            const QString& appIdentifier) {
  return SendRequest(link, RequestKind::ApplicationStart, TwoStrings(userName, appIdentifier),
                     kReportSeconds, false, nullptr);
}

void SendQuery(ServerLink& link, const QString& query) {
  (void)AskUntilAnswered(link, RequestKind::SingleQuery, OneString(query));
}

std::optional<QVariantMap> CopyQueryDictionary(ServerLink& link, const QString& first,
                                               const QString& second) {
  const QByteArray payload = TwoStrings(first, second);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    QByteArray reply;
    if (SendRequest(link, RequestKind::DictionaryQuery, payload, kQuerySeconds, true, &reply) == 0)
      if (std::optional<QVariantMap> dictionary = ReadDictionary(reply)) return dictionary;
    ReconnectAfterDrop(link);
  }
  return std::nullopt;
}

void KillProcess(ServerLink& link, std::int32_t pid) {
  if (pid <= 0) return;
  if (kill(pid, SIGKILL) == 0) {
    std::printf("Killed pid %i ourself!\n", int(pid));
  } else if (SendRequest(link, RequestKind::KillProcess, OneString(QString::number(pid)),
                         kKillSeconds, false, nullptr) != 0) {
    std::printf("Could not make vardell server kill process %i.\n", int(pid));
  }
  std::fflush(stdout);
}

}  // namespace vardell
