// The limits of one user and identifier, and what the Household refuses to do with them.
#include <QJsonArray>

#include "server/ControlCall.h"
#include "server/LimitsOptions.h"

namespace vardell::server {
namespace {

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

QString InOptions(const QString& field) {
  return QStringLiteral("options.") + field;
}

std::optional<Problem> CheckChange(const QJsonObject& body) {
  for (const QString& part : body.keys()) {
    if (body.value(part).isObject()) continue;
    return BadValue(part, QStringLiteral("\"%1\" must be an object").arg(part));
  }
  if (body.isEmpty()) {
    return BadValue(QStringLiteral("limits"),
                    QStringLiteral("\"limits\", \"options\" or both must be there"));
  }
  for (const QString& name : body.value(QLatin1String("options")).toObject().keys()) {
    if (!IsOption(name)) return UnknownField(InOptions(name));
  }
  return std::nullopt;
}

QVariantMap PartOf(const QJsonObject& body, const char* part) {
  return body.value(QLatin1String(part)).toObject().toVariantMap();
}

// The Household's messages follow their field.
QString About(const AdminResult& result) {
  return QStringLiteral("\"%1\" %2").arg(result.field, result.message);
}

}  // namespace

ControlAnswer AnswerLimit(int status, const LimitsEntry& entry, const QJsonObject& more) {
  QJsonObject object = ToJson(entry);
  for (auto field = more.begin(); field != more.end(); ++field) {
    object.insert(field.key(), field.value());
  }
  ControlAnswer answer = MakeAnswer(status, object);
  answer.etag = '"' + QByteArray::number(qulonglong{entry.revision}) + '"';
  return answer;
}

Problem NoLimits(const Call& call) {
  return NotFound(
      QStringLiteral("No limits of \"%1\" for \"%2\"").arg(call.user(), call.identifier()));
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
  return StoreFailed(result.message);
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
  const Body body = ReadBody(call.request.body, {"limits", "options"});
  if (body.problem) return MakeAnswer(*body.problem);
  if (const auto problem = CheckChange(body.object)) return MakeAnswer(*problem);
  AdminResult result = call.household().ChangeLimits(
      call.requester.actor, call.user(), call.identifier(), PartOf(body.object, "limits"),
      precondition.revision, PartOf(body.object, "options"));
  const bool isInOption = IsOption(result.field.section(QLatin1Char('.'), 0, 0));
  if (isInOption) result.field = InOptions(result.field);
  if (!result.entry) return MakeAnswer(ProblemOf(call, result));
  return AnswerLimit(precondition.revision == 0 ? 201 : 200, *result.entry);
}

ControlAnswer DeleteLimit(const Call& call) {
  const Precondition precondition = ReadPrecondition(call.request);
  if (precondition.problem) return MakeAnswer(*precondition.problem);
  if (precondition.revision == 0) {
    return MakeAnswer(BadRequest(QStringLiteral("What is removed is there: it needs If-Match"),
                                 QStringLiteral("If-None-Match")));
  }
  const AdminResult result = call.household().RemoveLimits(
      call.requester.actor, call.user(), call.identifier(), precondition.revision);
  if (!result.entry) return MakeAnswer(ProblemOf(call, result));
  return MakeAnswer(200, {{QStringLiteral("removed"), true}});
}

}  // namespace vardell::server
