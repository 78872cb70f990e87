#include <QDateTime>
#include <QLocale>
#include <QXmlStreamWriter>
#include <cmath>

#include "Common Sources/Caps.h"
#include "Common Sources/PropertyList.h"
#include "Common Sources/XmlText.h"

namespace vardell {

namespace {

constexpr char kDocumentType[] =
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">";

class Writer {
 public:
  explicit Writer(QByteArray* document) : out(*document), xml(document) {
    xml.setAutoFormatting(true);
    xml.setAutoFormattingIndent(-1);
  }

  bool Document(const QVariant& value);

 private:
  bool Value(const QVariant& value, int depth);
  bool Array(const QVariantList& list, int depth);
  bool Dictionary(const QVariantMap& map, int depth);
  bool Text(const char* element, const QString& text);
  bool Ascii(const char* element, const QByteArray& text);
  bool Data(const QByteArray& data);
  bool Real(double value);
  bool Date(const QDateTime& date);
  bool HasRoomFor(qsizetype bytes) const;

  const QByteArray& out;
  QXmlStreamWriter xml;
};

bool Writer::HasRoomFor(qsizetype bytes) const {
  return bytes <= static_cast<qsizetype>(kMaxPropertyListBytes) - out.size();
}

bool Writer::Text(const char* element, const QString& text) {
  if (!HasRoomFor(text.size()) || !IsXmlText(text)) return false;
  xml.writeStartElement(QLatin1String(element));
  // Every reader turns a bare carriage return into a line feed.
  const QList<QStringView> parts = QStringView(text).split(u'\r');
  for (qsizetype i = 0; i < parts.size(); ++i) {
    if (i > 0) xml.writeEntityReference(QStringLiteral("#13"));
    xml.writeCharacters(parts[i].toString());
  }
  xml.writeEndElement();
  return true;
}

bool Writer::Data(const QByteArray& data) {
  return HasRoomFor(data.size()) && Ascii("data", data.toBase64());
}

bool Writer::Ascii(const char* element, const QByteArray& text) {
  xml.writeTextElement(QLatin1String(element), QString::fromLatin1(text));
  return true;
}

bool Writer::Real(double value) {
  if (std::isnan(value)) return Ascii("real", "nan");
  if (std::isinf(value)) return Ascii("real", value < 0 ? "-infinity" : "+infinity");
  if (value == 0 && std::signbit(value)) return Ascii("real", "-0");
  return Ascii("real", QByteArray::number(value, 'g', QLocale::FloatingPointShortest));
}

bool Writer::Date(const QDateTime& date) {
  const QDateTime utc = date.toUTC();
  if (!utc.isValid() || utc.date().year() < 1 || utc.date().year() > 9999) return false;
  return Ascii("date", utc.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ssZ")).toLatin1());
}

bool Writer::Array(const QVariantList& list, int depth) {
  if (depth > kMaxPropertyListDepth) return false;
  xml.writeStartElement(QStringLiteral("array"));
  for (const QVariant& value : list) {
    if (!Value(value, depth)) return false;
  }
  xml.writeEndElement();
  return true;
}

bool Writer::Dictionary(const QVariantMap& map, int depth) {
  if (depth > kMaxPropertyListDepth) return false;
  xml.writeStartElement(QStringLiteral("dict"));
  for (auto entry = map.begin(); entry != map.end(); ++entry) {
    if (!Text("key", entry.key()) || !Value(entry.value(), depth)) return false;
  }
  xml.writeEndElement();
  return true;
}

bool Writer::Value(const QVariant& value, int depth) {
  if (!HasRoomFor(1)) return false;
  switch (value.typeId()) {
    case QMetaType::QVariantMap:
      return Dictionary(value.toMap(), depth + 1);
    case QMetaType::QVariantList:
      return Array(value.toList(), depth + 1);
    case QMetaType::QString:
      return Text("string", value.toString());
    case QMetaType::Int:
    case QMetaType::LongLong:
      return Ascii("integer", QByteArray::number(value.toLongLong()));
    case QMetaType::UInt:
    case QMetaType::ULongLong:
      return Ascii("integer", QByteArray::number(value.toULongLong()));
    case QMetaType::Double:
      return Real(value.toDouble());
    case QMetaType::Bool:
      xml.writeEmptyElement(value.toBool() ? QStringLiteral("true") : QStringLiteral("false"));
      return true;
    case QMetaType::QDateTime:
      return Date(value.toDateTime());
    case QMetaType::QByteArray:
      return Data(value.toByteArray());
    default:
      return false;
  }
}

bool Writer::Document(const QVariant& value) {
  xml.writeStartDocument();
  xml.writeDTD(QLatin1String(kDocumentType));
  xml.writeStartElement(QStringLiteral("plist"));
  xml.writeAttribute(QStringLiteral("version"), QStringLiteral("1.0"));
  if (!Value(value, 0)) return false;
  xml.writeEndDocument();
  return !xml.hasError();
}

}  // namespace

std::optional<QByteArray> WritePropertyListXml(const QVariant& value) {
  QByteArray out;
  if (!Writer(&out).Document(value)) return std::nullopt;
  if (static_cast<std::size_t>(out.size()) > kMaxPropertyListBytes) return std::nullopt;
  return out;
}

}  // namespace vardell
