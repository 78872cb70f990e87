#include "server/ControlApi.h"

#include <algorithm>
#include <vector>

#include "Common Sources/Caps.h"
#include "server/ControlCall.h"

namespace vardell::server {
namespace {

// Whom a request concerns.
enum class Concerns {
  EveryoneWhoAsks,  // shows each only what that one may see
  UserInPath,
  UserInQuery,
  Everybody,
};

struct Resource {
  const char* method;
  const char* path;  // "*" is any one segment
  Verb verb;
  Concerns concerns;
  std::vector<const char*> queryFields;
  std::function<ControlOutcome(const Call& call)> answer;
};

const std::vector<Resource>& Resources() {
  static const std::vector<Resource> kResources = {
      {"GET", "v1/status", Verb::Read, Concerns::EveryoneWhoAsks, {}, GetStatus},
      {"GET", "v1/metrics", Verb::Read, Concerns::EveryoneWhoAsks, {}, GetMetrics},
      {"GET", "v1/agents", Verb::Read, Concerns::EveryoneWhoAsks, {}, GetAgents},
      {"GET", "v1/users", Verb::Read, Concerns::EveryoneWhoAsks, {}, GetUsers},
      {"GET", "v1/users/*/limits", Verb::Read, Concerns::UserInPath, {}, GetLimits},
      {"GET", "v1/users/*/limits/*", Verb::Read, Concerns::UserInPath, {}, GetLimit},
      {"PATCH", "v1/users/*/limits/*", Verb::ChangeLimits, Concerns::UserInPath, {}, PatchLimit},
      {"DELETE", "v1/users/*/limits/*", Verb::ChangeLimits, Concerns::UserInPath, {}, DeleteLimit},
      {"PUT",
       "v1/users/*/limits/*/credit",
       Verb::ChangeCredit,
       Concerns::UserInPath,
       {},
       PutCredit},
      {"POST",
       "v1/users/*/limits/*/adjustments",
       Verb::ChangeCredit,
       Concerns::UserInPath,
       {},
       PostAdjustment},
      {"GET", "v1/users/*/usage", Verb::Read, Concerns::UserInPath, {"from", "to"}, GetUsageOfUser},
      {"GET",
       "v1/users/*/limits/*/usage",
       Verb::Read,
       Concerns::UserInPath,
       {"from", "to"},
       GetUsage},
      {"GET",
       "v1/ledger",
       Verb::Read,
       Concerns::UserInQuery,
       {"after", "user", "identifier", "limit"},
       GetLedger},
      {"GET", "v1/backup", Verb::BackUp, Concerns::Everybody, {}, GetBackup},
      {"PUT", "v1/backup", Verb::BackUp, Concerns::Everybody, {"check"}, PutBackup},
  };
  return kResources;
}

bool Matches(const Resource& resource, const std::vector<QString>& path) {
  const QList<QByteArray> pattern = QByteArray(resource.path).split('/');
  return std::equal(pattern.begin(), pattern.end(), path.begin(), path.end(),
                    [](const QByteArray& wanted, const QString& segment) {
                      return wanted == "*" || segment == QLatin1String(wanted);
                    });
}

ControlAnswer RefuseMethod(const QByteArray& allowed) {
  ControlAnswer answer =
      MakeAnswer(Problem{405,
                         "method-not-allowed",
                         QStringLiteral("This resource does not have that method"),
                         {},
                         QStringLiteral("It has %1").arg(QString::fromLatin1(allowed))});
  answer.allow = allowed;
  return answer;
}

bool IsAuthorised(const Resource& resource, const Call& call) {
  if (resource.concerns == Concerns::EveryoneWhoAsks) return true;
  QString user;
  if (resource.concerns == Concerns::UserInPath) user = call.user();
  if (resource.concerns == Concerns::UserInQuery) user = call.queried("user");
  return Authorise(call.requester, resource.verb, user);
}

Problem Forbidden(const Call& call) {
  return {403,
          "forbidden",
          QStringLiteral("%1 may not do this").arg(call.requester.actor.name),
          {},
          QStringLiteral("Root may do everything, members of the group \"%1\" may read everything "
                         "and change credit, each user may read what concerns that user")
              .arg(QLatin1String(kTopUpGroup))};
}

std::optional<Problem> CheckQuery(const Resource& resource, const QueryFields& query) {
  for (const auto& field : query) {
    const auto isField = [&](const char* name) { return field.first == QLatin1String(name); };
    const auto& known = resource.queryFields;
    if (std::any_of(known.begin(), known.end(), isField)) continue;
    return UnknownField(field.first);
  }
  return std::nullopt;
}

ControlOutcome AnswerBy(const Resource& resource, const Call& call) {
  if (!IsAuthorised(resource, call)) return MakeAnswer(Forbidden(call));
  if (const auto problem = CheckQuery(resource, call.query)) return MakeAnswer(*problem);
  const bool takesBody = call.request.method != "GET" && call.request.method != "DELETE";
  if (!takesBody && !call.request.body.isEmpty()) {
    return MakeAnswer(BadRequest(
        QStringLiteral("A %1 has no body").arg(QString::fromLatin1(call.request.method))));
  }
  return resource.answer(call);
}

}  // namespace

ControlOutcome AnswerControlRequest(const ControlResources& resources, const Requester& requester,
                                    const ControlRequest& request) {
  resources.household.Settle();
  Call call{resources, requester, request, {}, {}};
  if (!SplitPath(request.target, &call.path) || !SplitQuery(request.target, &call.query)) {
    return MakeAnswer(
        BadRequest(QStringLiteral("The address cannot be read"), {},
                   QStringLiteral("Percent-encode each part; a part has 1 to %1 bytes of UTF-8")
                       .arg(kMaxNameBytes)));
  }
  QList<QByteArray> allowed;
  for (const Resource& resource : Resources()) {
    if (!Matches(resource, call.path)) continue;
    if (request.method == resource.method) return AnswerBy(resource, call);
    allowed.append(resource.method);
  }
  if (!allowed.isEmpty()) return RefuseMethod(allowed.join(", "));
  return MakeAnswer(NotFound(QStringLiteral("There is no such resource")));
}

std::size_t MaxBodyBytes(const Requester& requester, const QByteArray& method,
                         const QByteArray& target) {
  const bool isRestore = method == "PUT" && target.split('?').constFirst() == "/v1/backup";
  const bool isTaken = isRestore && Authorise(requester, Verb::BackUp, {});
  return isTaken ? kMaxBackupBytes : kMaxControlBodyBytes;
}

ControlAnswer RefuseHeader() {
  return MakeAnswer(Problem{431, "too-large", QStringLiteral("The header is too large"), {}, {}});
}

ControlAnswer RefuseBody(std::size_t maxBytes) {
  const QString title =
      QStringLiteral("The body is too large: at most %1 bytes are taken").arg(maxBytes);
  return MakeAnswer(Problem{413,
                            "too-large",
                            title,
                            {},
                            maxBytes == kMaxBackupBytes ? HintForLargeBackups() : QString()});
}

ControlAnswer RefuseMalformed() {
  return MakeAnswer(BadRequest(QStringLiteral("This is not an HTTP/1.1 request")));
}

}  // namespace vardell::server
