// A Household with one limit, asked as the control socket asks it.
#pragma once

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <optional>

#include "server/ControlApi.h"
#include "server/ControlJson.h"
#include "tests/server/HouseholdFixture.h"

namespace vardell::server {

inline constexpr char kGame[] = "/v1/users/anna/limits/org.example.game";
inline constexpr char kGameCredit[] = "/v1/users/anna/limits/org.example.game/credit";
inline constexpr char kGameAdjustments[] = "/v1/users/anna/limits/org.example.game/adjustments";
inline constexpr char kGameUsage[] = "/v1/users/anna/limits/org.example.game/usage";

class ControlApi : public HouseholdFixture {
 protected:
  void SetUp() override {
    HouseholdFixture::SetUp();
    Limit({{QStringLiteral("Credit"), 30}, {QStringLiteral("WD start"), 480}});
  }

  ControlAnswer Ask(const char* method, const QByteArray& target, const QByteArray& body = {},
                    std::optional<QByteArray> ifMatch = {},
                    std::optional<QByteArray> ifNoneMatch = {}) {
    const ControlResources resources{*household_, [this] { return status_; }};
    ControlOutcome outcome =
        AnswerControlRequest(resources, requester_, {method, target, ifMatch, ifNoneMatch, body});
    if (const auto* answer = std::get_if<ControlAnswer>(&outcome)) return *answer;
    ControlTask& task = *std::get<std::unique_ptr<ControlTask>>(outcome);
    task.Prepare();
    for (;;) {
      if (const auto answer = task.Step()) return *answer;
    }
  }
  static QJsonObject Json(const ControlAnswer& answer) {
    return QJsonDocument::fromJson(answer.body).object();
  }
  // The object's text, without its spaces and in the order of its keys.
  static std::string Text(const ControlAnswer& answer) {
    return answer.body.trimmed().toStdString();
  }
  static QByteArray Code(const ControlAnswer& answer) {
    return Json(answer).value(QLatin1String("code")).toString().toLatin1();
  }
  void Be(Role role, const char* name) {
    requester_ = {{1234, QStringLiteral("uid 1234 (%1)").arg(QLatin1String(name))},
                  QString::fromLatin1(name),
                  role};
  }

  ServerStatus status_{QStringLiteral("0.1"), QStringLiteral("127.0.0.1:40001"),
                       QStringLiteral("Vardell on den"), 3, now_};
  Requester requester_{{0, QStringLiteral("uid 0 (root)")}, QStringLiteral("root"), Role::Admin};
};

}  // namespace vardell::server
