// Credit, and the ledger that it is the sum of.
#include <QJsonArray>
#include <limits>

#include "Common Sources/Caps.h"
#include "server/ControlCall.h"

namespace vardell::server {
namespace {

constexpr int kUsualLedgerRows = 500;
constexpr int kMaxAdjustmentIdLength = 128;
constexpr int kMaxReasonLength = 1024;

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

struct CreditBody {
  std::int64_t minutes = 0;
  QString id;
  QString reason;
  std::optional<Problem> problem;
};

CreditBody ReadCreditBody(const QByteArray& bytes) {
  const QString id = QStringLiteral("id");
  const QString reason = QStringLiteral("reason");
  CreditBody credit;
  const Body body = ReadBody(bytes, {"minutes", "id", "reason"});
  const auto minutes = WholeNumber(body.object.value(QLatin1String("minutes")));
  credit.problem = body.problem;
  if (!credit.problem && !minutes) {
    credit.problem =
        BadValue(QStringLiteral("minutes"), QStringLiteral("\"minutes\" must be a whole number"));
  }
  if (!credit.problem) credit.problem = CheckText(body.object, id, true, kMaxAdjustmentIdLength);
  if (!credit.problem) credit.problem = CheckText(body.object, reason, false, kMaxReasonLength);
  if (credit.problem) return credit;
  credit.minutes = *minutes;
  credit.id = body.object.value(id).toString();
  credit.reason = body.object.value(reason).toString();
  return credit;
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

}  // namespace

ControlAnswer PutCredit(const Call& call) {
  const CreditBody body = ReadCreditBody(call.request.body);
  if (body.problem) return MakeAnswer(*body.problem);
  const AdminResult result = call.household().SetCredit(
      call.requester.actor, call.user(), call.identifier(), body.minutes, body.id, body.reason);
  return result.entry ? AnswerLimit(200, *result.entry) : MakeAnswer(ProblemOf(call, result));
}

ControlAnswer PostAdjustment(const Call& call) {
  const CreditBody body = ReadCreditBody(call.request.body);
  if (body.problem) return MakeAnswer(*body.problem);
  const AdminResult result = call.household().AddCredit(
      call.requester.actor, call.user(), call.identifier(), body.minutes, body.id, body.reason);
  if (!result.entry) return MakeAnswer(ProblemOf(call, result));
  return AnswerLimit(200, *result.entry, {{QStringLiteral("added"), qint64{result.added}}});
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

}  // namespace vardell::server
