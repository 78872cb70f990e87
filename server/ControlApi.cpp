#include "server/ControlApi.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <initializer_list>
#include <limits>
#include <vector>

#include "Common Sources/Caps.h"
#include "server/ControlJson.h"
#include "server/ControlReading.h"

namespace vardell::server {
namespace {

constexpr int kUsualLedgerRows = 500;
constexpr int kMaxAdjustmentIdLength = 128;
constexpr int kMaxReasonLength = 1024;

struct Call {
  const ControlResources& resources;
  const Requester& requester;
  const ControlRequest& request;
  std::vector<QString> path;
  QueryFields query;

  Household& household() const { return resources.household; }
  const QString& user() const { return path[2]; }
  const QString& identifier() const { return path[4]; }
  QString queried(const char* name) const {
    const auto found = query.find(QLatin1String(name));
    return found == query.end() ? QString() : found->second;
  }
};

// --- Reading what was asked.

Problem BadRequest(const QString& title, const QString& field = {}, const QString& hint = {}) {
  return {400, "bad-request", title, field, hint};
}

Problem BadValue(const QString& field, const QString& title) {
  return {422, "bad-value", title, field, {}};
}

struct Body {
  QJsonObject object;
  std::optional<Problem> problem;
};

Body ReadBody(const QByteArray& bytes, std::initializer_list<const char*> fields) {
  QJsonParseError error;
  const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
  if (error.error != QJsonParseError::NoError)
    return {{}, BadRequest(QStringLiteral("The body is not JSON: %1").arg(error.errorString()))};
  if (!document.isObject())
    return {{}, BadRequest(QStringLiteral("The body is not a JSON object"))};
  const QJsonObject object = document.object();
  for (const QString& name : object.keys()) {
    const auto isName = [&](const char* field) { return name == QLatin1String(field); };
    if (std::any_of(fields.begin(), fields.end(), isName)) continue;
    return {
        {},
        Problem{400, "unknown-field", QStringLiteral("Unknown field \"%1\"").arg(name), name, {}}};
  }
  return {object, std::nullopt};
}

struct Precondition {
  std::uint64_t revision = 0;  // 0: it must be new
  std::optional<Problem> problem;
};

Precondition ReadPrecondition(const ControlRequest& request) {
  const QString hint = QStringLiteral(
      "Send If-Match with the ETag of a GET, or If-None-Match: * where there are no limits yet");
  if (request.ifMatch.has_value() == request.ifNoneMatch.has_value()) {
    return {0, request.ifMatch
                   ? BadRequest(QStringLiteral("Both If-Match and If-None-Match"), {}, hint)
                   : Problem{428,
                             "precondition-required",
                             QStringLiteral("A change needs to say what it changes"),
                             {},
                             hint}};
  }
  if (request.ifNoneMatch) {
    if (request.ifNoneMatch->trimmed() == "*") return {};
    return {0, BadRequest(QStringLiteral("If-None-Match can only be *"),
                          QStringLiteral("If-None-Match"), hint)};
  }
  const std::optional<std::uint64_t> revision = RevisionFrom(*request.ifMatch);
  if (revision) return {*revision, std::nullopt};
  return {0, BadRequest(QStringLiteral("If-Match is not one revision in double quotes"),
                        QStringLiteral("If-Match"), hint)};
}

// --- Answering.

ControlAnswer AnswerLimit(int status, const LimitsEntry& entry) {
  ControlAnswer answer = MakeAnswer(status, ToJson(entry));
  answer.etag = '"' + QByteArray::number(qulonglong{entry.revision}) + '"';
  return answer;
}

Problem NotFound(const QString& title) {
  return {404, "not-found", title, {}, {}};
}

Problem NoLimits(const Call& call) {
  return NotFound(
      QStringLiteral("No limits of \"%1\" for \"%2\"").arg(call.user(), call.identifier()));
}

// The Household's messages follow their field.
QString About(const AdminResult& result) {
  return QStringLiteral("\"%1\" %2").arg(result.field, result.message);
}

Problem ProblemOf(const Call& call, const AdminResult& result) {
  switch (result.status) {
    case AdminStatus::Ok:
      break;
    case AdminStatus::NotFound:
      return NoLimits(call);
    case AdminStatus::RevisionMismatch:
      return {412,
              "revision-mismatch",
              QStringLiteral("The limits have changed meanwhile"),
              {},
              QStringLiteral("Read them again and repeat the change")};
    case AdminStatus::IdReused:
      return {409, "id-reused", QStringLiteral("This id was used for another change"),
              QStringLiteral("id"), QStringLiteral("Send each change under an id of its own")};
    case AdminStatus::UnknownKey:
      return {422, "unknown-key", About(result), result.field, {}};
    case AdminStatus::BadValue:
      return BadValue(result.field, About(result));
    case AdminStatus::StoreFailed:
      break;
  }
  return {503,
          "store-failed",
          QStringLiteral("The store could not be written: nothing was changed"),
          {},
          result.message};
}

ControlAnswer AnswerOf(const Call& call, int status, const AdminResult& result) {
  if (result.status == AdminStatus::Ok && result.entry) return AnswerLimit(status, *result.entry);
  return MakeAnswer(ProblemOf(call, result));
}

ControlAnswer GetStatus(const Call& call) {
  return MakeAnswer(200, ToJson(call.resources.status(), call.household().StoreDescription()));
}

ControlAnswer GetUsers(const Call& call) {
  QJsonArray users;
  for (const QString& user : call.household().Users()) {
    if (Authorise(call.requester, Verb::Read, user)) users.append(user);
  }
  return MakeAnswer(200, {{QStringLiteral("users"), users}});
}

ControlAnswer GetLimits(const Call& call) {
  const std::vector<LimitsEntry> entries = call.household().Limits(call.user());
  if (entries.empty())
    return MakeAnswer(NotFound(QStringLiteral("No limits of \"%1\"").arg(call.user())));
  QJsonArray limits;
  for (const LimitsEntry& entry : entries) limits.append(ToJson(entry));
  return MakeAnswer(200, {{QStringLiteral("limits"), limits}});
}

ControlAnswer GetLimit(const Call& call) {
  const std::optional<LimitsEntry> entry = call.household().Limits(call.user(), call.identifier());
  return entry ? AnswerLimit(200, *entry) : MakeAnswer(NoLimits(call));
}

ControlAnswer PatchLimit(const Call& call) {
  const Precondition precondition = ReadPrecondition(call.request);
  if (precondition.problem) return MakeAnswer(*precondition.problem);
  const Body body = ReadBody(call.request.body, {"limits"});
  if (body.problem) return MakeAnswer(*body.problem);
  const QJsonValue limits = body.object.value(QLatin1String("limits"));
  if (!limits.isObject()) {
    return MakeAnswer(
        BadValue(QStringLiteral("limits"), QStringLiteral("\"limits\" must be an object")));
  }
  const QVariantMap keys = limits.toObject().toVariantMap();
  return AnswerOf(call, precondition.revision == 0 ? 201 : 200,
                  call.household().ChangeLimits(call.requester.actor, call.user(),
                                                call.identifier(), keys, precondition.revision));
}

std::optional<Problem> CheckText(const QJsonObject& object, const QString& field, bool required,
                                 int maxLength) {
  const QJsonValue value = object.value(field);
  if (value.isUndefined() && !required) return std::nullopt;
  const qsizetype length = value.toString().size();
  if (value.isString() && length <= maxLength && (length > 0 || !required)) return std::nullopt;
  return BadValue(
      field,
      QStringLiteral("\"%1\" must be a text of at most %2 characters").arg(field).arg(maxLength));
}

ControlAnswer PutCredit(const Call& call) {
  const Body body = ReadBody(call.request.body, {"minutes", "id", "reason"});
  if (body.problem) return MakeAnswer(*body.problem);
  const std::optional<std::int64_t> minutes =
      WholeNumber(body.object.value(QLatin1String("minutes")));
  if (!minutes) {
    return MakeAnswer(
        BadValue(QStringLiteral("minutes"), QStringLiteral("\"minutes\" must be a whole number")));
  }
  const QString id = QStringLiteral("id");
  const QString reason = QStringLiteral("reason");
  std::optional<Problem> problem = CheckText(body.object, id, true, kMaxAdjustmentIdLength);
  if (!problem) problem = CheckText(body.object, reason, false, kMaxReasonLength);
  if (problem) return MakeAnswer(*problem);
  return AnswerOf(call, 200,
                  call.household().SetCredit(call.requester.actor, call.user(), call.identifier(),
                                             *minutes, body.object.value(id).toString(),
                                             body.object.value(reason).toString()));
}

// `fallback` where the query has no such field; none where its value is no number in the range.
std::optional<std::int64_t> NumberInQuery(const Call& call, const char* name, std::int64_t fallback,
                                          std::int64_t least, std::int64_t most) {
  if (call.query.count(QLatin1String(name)) == 0) return fallback;
  bool good = false;
  const qlonglong number = call.queried(name).toLongLong(&good);
  if (!good || number < least || number > most) return std::nullopt;
  return number;
}

ControlAnswer GetLedger(const Call& call) {
  const auto after = NumberInQuery(call, "after", 0, 0, std::numeric_limits<std::int64_t>::max());
  if (!after) {
    return MakeAnswer(BadValue(QStringLiteral("after"),
                               QStringLiteral("\"after\" must be the id of a row, or 0")));
  }
  const auto limit = NumberInQuery(call, "limit", kUsualLedgerRows, 1, kMaxLedgerRows);
  if (!limit) {
    return MakeAnswer(BadValue(QStringLiteral("limit"),
                               QStringLiteral("\"limit\" must be 1 to %1").arg(kMaxLedgerRows)));
  }
  QJsonArray rows;
  const auto ledger = call.household().Ledger(*after, call.queried("user"),
                                              call.queried("identifier"), static_cast<int>(*limit));
  if (!ledger) {
    return MakeAnswer(Problem{503,
                              "store-failed",
                              QStringLiteral("The ledger cannot be read"),
                              {},
                              QStringLiteral("The Server's log says why")});
  }
  for (const LedgerRow& row : *ledger) rows.append(ToJson(row));
  return MakeAnswer(200, {{QStringLiteral("rows"), rows}});
}

// --- Finding the resource.

// Whom a request concerns.
enum class Concerns {
  EveryoneWhoAsks,  // shows each only what that one may see
  UserInPath,
  UserInQuery,
};

struct Resource {
  const char* method;
  const char* path;  // "*" is any one segment
  Verb verb;
  Concerns concerns;
  std::vector<const char*> queryFields;
  ControlAnswer (*answer)(const Call& call);
};

const std::vector<Resource>& Resources() {
  static const std::vector<Resource> kResources = {
      {"GET", "v1/status", Verb::Read, Concerns::EveryoneWhoAsks, {}, GetStatus},
      {"GET", "v1/users", Verb::Read, Concerns::EveryoneWhoAsks, {}, GetUsers},
      {"GET", "v1/users/*/limits", Verb::Read, Concerns::UserInPath, {}, GetLimits},
      {"GET", "v1/users/*/limits/*", Verb::Read, Concerns::UserInPath, {}, GetLimit},
      {"PATCH", "v1/users/*/limits/*", Verb::ChangeLimits, Concerns::UserInPath, {}, PatchLimit},
      {"PUT",
       "v1/users/*/limits/*/credit",
       Verb::ChangeCredit,
       Concerns::UserInPath,
       {},
       PutCredit},
      {"GET",
       "v1/ledger",
       Verb::Read,
       Concerns::UserInQuery,
       {"after", "user", "identifier", "limit"},
       GetLedger},
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
  const bool inPath = resource.concerns == Concerns::UserInPath;
  return Authorise(call.requester, resource.verb, inPath ? call.user() : call.queried("user"));
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
    return Problem{400,
                   "unknown-field",
                   QStringLiteral("Unknown field \"%1\"").arg(field.first),
                   field.first,
                   {}};
  }
  return std::nullopt;
}

ControlAnswer AnswerBy(const Resource& resource, const Call& call) {
  if (!IsAuthorised(resource, call)) return MakeAnswer(Forbidden(call));
  if (const auto problem = CheckQuery(resource, call.query)) return MakeAnswer(*problem);
  if (resource.verb == Verb::Read && !call.request.body.isEmpty())
    return MakeAnswer(BadRequest(QStringLiteral("A GET has no body")));
  return resource.answer(call);
}

}  // namespace

ControlAnswer AnswerControlRequest(const ControlResources& resources, const Requester& requester,
                                   const ControlRequest& request) {
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

ControlAnswer RefuseTooLarge(int status, const QString& what) {
  return MakeAnswer(Problem{status, "too-large", what, {}, {}});
}

ControlAnswer RefuseMalformed() {
  return MakeAnswer(BadRequest(QStringLiteral("This is not an HTTP/1.1 request")));
}

}  // namespace vardell::server
