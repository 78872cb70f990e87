#include "server/ControlCall.h"

#include <QJsonDocument>
#include <algorithm>

namespace vardell::server {

Problem BadRequest(const QString& title, const QString& field, const QString& hint) {
  return {400, "bad-request", title, field, hint};
}

Problem BadValue(const QString& field, const QString& title) {
  return {422, "bad-value", title, field, {}};
}

Problem UnknownField(const QString& name) {
  return {400, "unknown-field", QStringLiteral("Unknown field \"%1\"").arg(name), name, {}};
}

Problem NotFound(const QString& title) {
  return {404, "not-found", title, {}, {}};
}

Problem StoreFailed(const QString& hint) {
  return {503, "store-failed", QStringLiteral("The store could not be written"), {}, hint};
}

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
    return {{}, UnknownField(name)};
  }
  return {object, std::nullopt};
}

}  // namespace vardell::server
