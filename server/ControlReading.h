// The small forms inside a request on the control socket. Outputs are untouched on failure.
#pragma once

#include <QByteArray>
#include <QDate>
#include <QJsonValue>
#include <QString>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace vardell::server {

using QueryFields = std::map<QString, QString>;

// The decoded segments of a request's target. False for an empty segment, a stray '%', what is not
// UTF-8, and a segment above kMaxNameBytes.
[[nodiscard]] bool SplitPath(const QByteArray& target, std::vector<QString>* path);

// The decoded fields behind the '?'; empty where there is none. False as above (a value may be
// empty), and for a field that stands twice.
[[nodiscard]] bool SplitQuery(const QByteArray& target, QueryFields* query);

// A JSON number without a fraction (480 and 480.0 alike) that 64 bits hold exactly.
std::optional<std::int64_t> WholeNumber(const QJsonValue& value);

// An ISO date of this very form: 2009-03-05.
std::optional<QDate> DayFrom(const QString& text);

// The value of an If-Match that names one revision: "7", with the quotes.
std::optional<std::uint64_t> RevisionFrom(const QByteArray& tag);

}  // namespace vardell::server
