#include "server/ControlReading.h"

#include <QStringDecoder>
#include <QVariant>
#include <cctype>
#include <cmath>

#include "Common Sources/Caps.h"

namespace vardell::server {
namespace {

constexpr double kLargestExactWhole = 9007199254740992.0;  // 2^53

// Strict: a stray '%', bytes that are no UTF-8 and overlong names are no text.
std::optional<QString> Decode(const QByteArray& encoded) {
  const auto isHex = [&](qsizetype at) {
    return at < encoded.size() && std::isxdigit(static_cast<unsigned char>(encoded[at])) != 0;
  };
  for (qsizetype at = encoded.indexOf('%'); at >= 0; at = encoded.indexOf('%', at + 1)) {
    if (!isHex(at + 1) || !isHex(at + 2)) return std::nullopt;
  }
  const QByteArray bytes = QByteArray::fromPercentEncoding(encoded);
  if (bytes.size() > static_cast<qsizetype>(kMaxNameBytes)) return std::nullopt;
  QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
  const QString text = decoder(bytes);
  if (decoder.hasError()) return std::nullopt;
  return text;
}

}  // namespace

bool SplitPath(const QByteArray& target, std::vector<QString>* path) {
  const QByteArray encoded = target.split('?').constFirst();
  if (!encoded.startsWith('/')) return false;
  std::vector<QString> segments;
  for (const QByteArray& segment : encoded.mid(1).split('/')) {
    const std::optional<QString> text = Decode(segment);
    if (!text || text->isEmpty()) return false;
    segments.push_back(*text);
  }
  *path = std::move(segments);
  return true;
}

bool SplitQuery(const QByteArray& target, QueryFields* query) {
  const qsizetype start = target.indexOf('?');
  if (start < 0) return true;
  QueryFields fields;
  for (const QByteArray& field : target.mid(start + 1).split('&')) {
    const qsizetype equals = field.indexOf('=');
    const std::optional<QString> name = Decode(field.split('=').constFirst());
    const std::optional<QString> value = Decode(equals < 0 ? QByteArray() : field.mid(equals + 1));
    if (!name || !value || !fields.emplace(*name, *value).second) return false;
  }
  *query = std::move(fields);
  return true;
}

std::optional<std::int64_t> WholeNumber(const QJsonValue& value) {
  const QVariant number = value.toVariant();
  if (number.typeId() == QMetaType::LongLong) return number.toLongLong();
  if (number.typeId() != QMetaType::Double) return std::nullopt;
  const double real = number.toDouble();
  if (std::trunc(real) != real || std::fabs(real) > kLargestExactWhole) return std::nullopt;
  return static_cast<std::int64_t>(real);
}

std::optional<QDate> DayFrom(const QString& text) {
  const QDate day = QDate::fromString(text, Qt::ISODate);
  if (!day.isValid() || day.toString(Qt::ISODate) != text) return std::nullopt;
  return day;
}

std::optional<std::uint64_t> RevisionFrom(const QByteArray& tag) {
  const QByteArray trimmed = tag.trimmed();
  if (trimmed.size() < 3 || !trimmed.startsWith('"') || !trimmed.endsWith('"')) return std::nullopt;
  bool good = false;
  const qulonglong revision = trimmed.mid(1, trimmed.size() - 2).toULongLong(&good);
  if (!good || revision == 0) return std::nullopt;
  return revision;
}

}  // namespace vardell::server
