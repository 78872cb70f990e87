#include <QDateTime>
#include <QStringDecoder>
#include <QTimeZone>
#include <QXmlStreamReader>
#include <charconv>
#include <cmath>
#include <limits>

#include "Common Sources/Caps.h"
#include "Common Sources/PropertyList.h"
#include "Common Sources/XmlText.h"

namespace vardell {

namespace {

bool IsXmlBlank(QChar c) {
  return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r';
}

// The text without the blanks around it; empty when it is not ASCII.
QByteArray AsciiToken(const QString& text) {
  qsizetype first = 0;
  qsizetype end = text.size();
  while (first < end && IsXmlBlank(text[first])) ++first;
  while (end > first && IsXmlBlank(text[end - 1])) --end;
  QByteArray token;
  for (const QChar c : QStringView(text).sliced(first, end - first)) {
    if (c.unicode() > 0x7E) return {};
    token.append(static_cast<char>(c.unicode()));
  }
  return token;
}

template <typename Number>
std::optional<Number> ParseWhole(const char* begin, const char* end) {
  Number number{};
  const auto [stop, error] = std::from_chars(begin, end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

std::optional<QVariant> ParseInteger(const QString& text) {
  const QByteArray token = AsciiToken(text);
  const char* begin = token.constData();
  const char* end = begin + token.size();
  if (begin == end) return std::nullopt;
  if (*begin == '+') {
    if (++begin == end || *begin == '-') return std::nullopt;
  }
  if (const auto number = ParseWhole<std::int64_t>(begin, end)) {
    return QVariant(static_cast<qlonglong>(*number));
  }
  if (const auto number = ParseWhole<std::uint64_t>(begin, end)) {
    return QVariant(static_cast<qulonglong>(*number));
  }
  return std::nullopt;
}

std::optional<QVariant> ParseReal(const QString& text) {
  const QByteArray token = AsciiToken(text);
  const bool isNegative = token.startsWith('-');
  const QByteArray size = isNegative || token.startsWith('+') ? token.mid(1) : token;
  double value = 0;
  if (size == "nan") {
    value = std::numeric_limits<double>::quiet_NaN();
  } else if (size == "infinity" || size == "inf") {
    value = std::numeric_limits<double>::infinity();
  } else {
    // toDouble would take further spellings of the two above, with signs of their own.
    if (size.isEmpty() || !(size[0] == '.' || (size[0] >= '0' && size[0] <= '9'))) {
      return std::nullopt;
    }
    bool isNumber = false;
    value = size.toDouble(&isNumber);
    if (!isNumber || !std::isfinite(value)) return std::nullopt;
  }
  return QVariant(isNegative ? -value : value);
}

// Exactly "2001-12-31T23:59:59Z".
std::optional<QVariant> ParseDate(const QString& text) {
  static constexpr char kPattern[] = "0000-00-00T00:00:00Z";
  const QByteArray token = AsciiToken(text);
  if (token.size() != sizeof kPattern - 1) return std::nullopt;
  for (qsizetype i = 0; i < token.size(); ++i) {
    const bool isDigit = token[i] >= '0' && token[i] <= '9';
    if (kPattern[i] == '0' ? !isDigit : token[i] != kPattern[i]) return std::nullopt;
  }
  const QDate date(token.mid(0, 4).toInt(), token.mid(5, 2).toInt(), token.mid(8, 2).toInt());
  const QTime time(token.mid(11, 2).toInt(), token.mid(14, 2).toInt(), token.mid(17, 2).toInt());
  if (!date.isValid() || !time.isValid()) return std::nullopt;
  return QVariant(QDateTime(date, time, Qt::UTC));
}

std::optional<QVariant> ParseData(const QString& text) {
  QByteArray compact;
  compact.reserve(text.size());
  for (const QChar c : text) {
    if (IsXmlBlank(c)) continue;
    if (c.unicode() > 0x7E) return std::nullopt;
    compact.append(static_cast<char>(c.unicode()));
  }
  const QByteArray data = QByteArray::fromBase64(compact);
  if (data.toBase64() != compact) return std::nullopt;
  return QVariant(data);
}

class Reader {
 public:
  explicit Reader(const QString& document) : xml(document) { xml.setNamespaceProcessing(false); }

  std::optional<QVariant> Document();

 private:
  enum class Next { Start, End, Broken };

  bool Prologue();
  bool PlistAttributesFit() const;
  Next NextElement();
  bool NothingUntilEnd() { return NextElement() == Next::End; }
  std::optional<QString> Text();
  std::optional<QVariant> Value(int depth);
  std::optional<QVariant> Array(int depth);
  std::optional<QVariant> Dictionary(int depth);
  std::optional<QVariant> Scalar(QStringView element);

  QXmlStreamReader xml;
};

// Leaves the reader at <plist>.
bool Reader::Prologue() {
  for (;;) {
    switch (xml.readNext()) {
      case QXmlStreamReader::StartDocument: {
        const QStringView encoding = xml.documentEncoding();
        if (!encoding.isEmpty() && encoding.compare(u"UTF-8", Qt::CaseInsensitive) != 0) {
          return false;
        }
        break;
      }
      case QXmlStreamReader::DTD:
        if (xml.dtdName() != u"plist" || xml.text().contains(u'[')) return false;
        break;
      case QXmlStreamReader::Comment:
      case QXmlStreamReader::ProcessingInstruction:
        break;
      case QXmlStreamReader::StartElement:
        return xml.qualifiedName() == u"plist" && PlistAttributesFit();
      default:
        return false;
    }
  }
}

bool Reader::PlistAttributesFit() const {
  const QXmlStreamAttributes attributes = xml.attributes();
  if (attributes.isEmpty()) return true;
  return attributes.size() == 1 && attributes[0].qualifiedName() == u"version" &&
         attributes[0].value() == u"1.0";
}

// The next start or end, across blanks and comments.
Reader::Next Reader::NextElement() {
  for (;;) {
    switch (xml.readNext()) {
      case QXmlStreamReader::Characters:
        if (!xml.isWhitespace() || xml.isCDATA()) return Next::Broken;
        break;
      case QXmlStreamReader::Comment:
      case QXmlStreamReader::ProcessingInstruction:
        break;
      case QXmlStreamReader::StartElement:
        return xml.attributes().isEmpty() ? Next::Start : Next::Broken;
      case QXmlStreamReader::EndElement:
        return Next::End;
      default:
        return Next::Broken;
    }
  }
}

std::optional<QString> Reader::Text() {
  QString text;
  for (;;) {
    switch (xml.readNext()) {
      case QXmlStreamReader::Characters:
        text += xml.text();
        break;
      case QXmlStreamReader::Comment:
      case QXmlStreamReader::ProcessingInstruction:
        break;
      case QXmlStreamReader::EndElement:
        return text;
      default:
        return std::nullopt;
    }
  }
}

std::optional<QVariant> Reader::Scalar(QStringView element) {
  if (element == u"true" || element == u"false") {
    const bool value = element == u"true";
    if (!NothingUntilEnd()) return std::nullopt;
    return QVariant(value);
  }
  using Parse = std::optional<QVariant> (*)(const QString&);
  static constexpr struct {
    QStringView element;
    Parse parse;
  } kKinds[] = {
      {u"string", [](const QString& text) { return std::optional(QVariant(text)); }},
      {u"integer", ParseInteger},
      {u"real", ParseReal},
      {u"date", ParseDate},
      {u"data", ParseData},
  };
  for (const auto& kind : kKinds) {
    if (element != kind.element) continue;
    const std::optional<QString> text = Text();
    return text ? kind.parse(*text) : std::nullopt;
  }
  return std::nullopt;
}

std::optional<QVariant> Reader::Array(int depth) {
  QVariantList list;
  for (;;) {
    switch (NextElement()) {
      case Next::End:
        return QVariant(list);
      case Next::Broken:
        return std::nullopt;
      case Next::Start:
        break;
    }
    std::optional<QVariant> value = Value(depth);
    if (!value) return std::nullopt;
    list.append(std::move(*value));
  }
}

std::optional<QVariant> Reader::Dictionary(int depth) {
  QVariantMap map;
  for (;;) {
    const Next next = NextElement();
    if (next == Next::End) return QVariant(map);
    if (next == Next::Broken || xml.qualifiedName() != u"key") return std::nullopt;
    const std::optional<QString> key = Text();
    if (!key || map.contains(*key)) return std::nullopt;
    if (NextElement() != Next::Start) return std::nullopt;
    std::optional<QVariant> value = Value(depth);
    if (!value) return std::nullopt;
    map.insert(*key, *value);
  }
}

// At the value's start; `depth` containers are open around it.
std::optional<QVariant> Reader::Value(int depth) {
  const QString element = xml.qualifiedName().toString();
  const bool isDictionary = element == u"dict";
  if (!isDictionary && element != u"array") return Scalar(element);
  if (depth >= kMaxPropertyListDepth) return std::nullopt;
  return isDictionary ? Dictionary(depth + 1) : Array(depth + 1);
}

std::optional<QVariant> Reader::Document() {
  if (!Prologue() || NextElement() != Next::Start) return std::nullopt;
  std::optional<QVariant> value = Value(0);
  if (!value || !NothingUntilEnd()) return std::nullopt;
  for (;;) {
    switch (xml.readNext()) {
      case QXmlStreamReader::Comment:
      case QXmlStreamReader::ProcessingInstruction:
        break;
      case QXmlStreamReader::EndDocument:
        return value;
      default:
        return std::nullopt;
    }
  }
}

}  // namespace

std::optional<QVariant> ReadPropertyListXml(const QByteArray& xml) {
  if (static_cast<std::size_t>(xml.size()) > kMaxPropertyListBytes) return std::nullopt;
  QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
  const QString document = decoder(xml);
  // The XML reader lets some forbidden characters pass, and takes lone ones as text.
  if (decoder.hasError() || !IsXmlText(document)) return std::nullopt;
  return Reader(document).Document();
}

}  // namespace vardell
