#include "Common Sources/PropertyList.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <cmath>
#include <limits>
#include <tuple>

#include "Common Sources/Caps.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

constexpr qlonglong kLeast = std::numeric_limits<qlonglong>::min();
constexpr qulonglong kGreatest = std::numeric_limits<qulonglong>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

constexpr char kHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n";

QByteArray Plist(const QByteArray& value) {
  return kHead + QByteArray("<plist version=\"1.0\">") + value + "</plist>\n";
}

QVariant UtcDate(int year, int month, int day, int hour, int minute, int second) {
  return QDateTime(QDate(year, month, day), QTime(hour, minute, second), Qt::UTC);
}

std::string Shown(const std::optional<QVariant>& value) {
  if (!value) return "absent";
  QString text;
  QDebug(&text) << *value;
  return text.toStdString();
}

void ExpectValue(const QByteArray& xml, const QVariant& expected) {
  const std::optional<QVariant> seen = ReadPropertyListXml(xml);
  ASSERT_TRUE(seen.has_value()) << xml.constData();
  EXPECT_EQ(seen->typeId(), expected.typeId()) << Shown(seen);
  EXPECT_EQ(*seen, expected) << xml.constData();
}

void ExpectRefused(const QByteArray& xml) {
  const std::optional<QVariant> seen = ReadPropertyListXml(xml);
  EXPECT_FALSE(seen.has_value()) << xml.constData() << " gave " << Shown(seen);
}

TEST(PropertyList, ReadsEachKindOfValue) {
  const std::pair<const char*, QVariant> kRows[] = {
      {"<string> a\n b </string>", u" a\n b "_s},
      {"<string/>", QString(QLatin1String(""))},
      {"<string>&lt;&amp;&#65;&#x42;</string>", u"<&AB"_s},
      {"<string>a<![CDATA[<b>]]><!-- x -->c</string>", u"a<b>c"_s},
      {"<integer>\n 7\t</integer>", qlonglong(7)},
      {"<integer>+5</integer>", qlonglong(5)},
      {"<integer>-9223372036854775808</integer>", kLeast},
      {"<integer>9223372036854775808</integer>", qulonglong(1) << 63},
      {"<integer>18446744073709551615</integer>", kGreatest},
      {"<real>-12.5e1</real>", -125.0},
      {"<real>-infinity</real>", -kInfinity},
      {"<true/>", true},
      {"<false><!-- no --></false>", false},
      {"<date>2024-02-29T23:59:59Z</date>", UtcDate(2024, 2, 29, 23, 59, 59)},
      {"<data>\n  aGVs\n  bG8=\n</data>", QByteArray("hello")},
      {"<data></data>", QByteArray("")},
      {"<array> </array>", QVariantList()},
      {"<dict><key>a</key><array><true/><dict/></array><key>A</key><false/></dict>",
       QVariantMap{{u"a"_s, QVariantList{true, QVariantMap()}}, {u"A"_s, false}}},
  };
  for (const auto& [xml, expected] : kRows) ExpectValue(Plist(xml), expected);

  // Documents around the value.
  ExpectValue("<plist><true/></plist>", true);
  ExpectValue("\xEF\xBB\xBF" + Plist("<true/>"), true);
  ExpectValue("<!-- a -->\n<plist version=\"1.0\">\n<true/>\n</plist>\n<!-- b -->\n", true);
  ExpectValue("<?xml version='1.0' encoding='utf-8'?><plist><true/></plist>", true);
}

// ---- What is refused ----

TEST(PropertyList, RefusesValuesThatAreNone) {
  const auto refuse = [](const QByteArray& element, std::initializer_list<const char*> texts) {
    for (const QByteArray text : texts)
      ExpectRefused(Plist("<" + element + ">" + text + "</" + element + ">"));
  };
  refuse("integer", {"", "-", "+-5", "12abc", "1.5", "18446744073709551616", "-9223372036854775809",
                     "\xD9\xA1"});
  refuse("real", {"", "abc", "1.5x", "1e999", "0x1p3", "--1", "1,000"});
  refuse("date", {"yesterday", "2023-02-29T00:00:00Z", "2023-02-28T24:00:00Z",
                  "2023-02-28T00:00:00", "+023-02-28T00:00:00Z", "0000-01-01T00:00:00Z"});
  refuse("data", {"aGV*bG8=", "aGVsbG8", "aGVsbG9="});
  refuse("string", {"a<b/>", "&unknown;", "&#1;", "\x01"});
  refuse("dict", {"<key>a</key><true/><key>a</key><true/>", "<key>a</key>", "<true/>",
                  "<string>a</string><true/>", "<key>a</key><key>b</key>", "text"});
  refuse("array", {"1", "<![CDATA[ ]]>", "<set/>", "<Dict/>", "<string lang=\"en\">a</string>",
                   "<key>a</key>", "<true>yes</true>", "</dict>"});
  for (const char* text : {"", "<true/><true/>", "<key>a</key>"}) ExpectRefused(Plist(text));
}

TEST(PropertyList, RefusesDocumentsThatAreNone) {
  const QByteArray good = Plist("<true/>");
  for (const QByteArray& xml :
       {good.chopped(10), good + "x", good + "<plist/>", good + QByteArray(1, '\0'),
        good + "\xE2\x82", Plist("<string>\xFF</string>"), Plist("<string>\xC0\xAF</string>"),
        Plist("<string>\xED\xA0\x80</string>"), QByteArray("bplist00\xd0\x08\0\0", 12)})
    ExpectRefused(xml);
  for (const char* xml :
       {"", "hello", "<dict/>", "<list><true/></list>", "<plist version=\"2.0\"><true/></plist>",
        "<plist xmlns=\"urn:a\"><true/></plist>",
        "<?xml version='1.0' encoding='UTF-16'?><plist><true/></plist>",
        "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>&a;</string></plist>",
        "<!DOCTYPE plist [<!ENTITY a SYSTEM \"/etc/passwd\">]><plist><string>&a;</string></plist>",
        "<!DOCTYPE plist []><plist><true/></plist>", "<!DOCTYPE html><plist><true/></plist>"})
    ExpectRefused(xml);
}

TEST(PropertyList, RefusesWhatIsTooDeepOrTooLarge) {
  const auto nested = [](int depth) {
    return Plist(QByteArray("<array>").repeated(depth) + QByteArray("</array>").repeated(depth));
  };
  EXPECT_TRUE(ReadPropertyListXml(nested(kMaxPropertyListDepth)).has_value());
  EXPECT_FALSE(ReadPropertyListXml(nested(kMaxPropertyListDepth + 1)).has_value());
  EXPECT_FALSE(ReadPropertyListXml(QByteArray("<array>").repeated(500000)).has_value());

  const qsizetype room = qsizetype(kMaxPropertyListBytes) - Plist("<string></string>").size();
  const auto withText = [](qsizetype size) {
    return Plist("<string>" + QByteArray(size, 'a') + "</string>");
  };
  EXPECT_TRUE(ReadPropertyListXml(withText(room)).has_value());
  EXPECT_FALSE(ReadPropertyListXml(withText(room + 1)).has_value());
}

// ---- Writing ----

TEST(PropertyList, WritingAndReadingGivesTheSameValue) {
  for (const QVariant& value : std::initializer_list<QVariant>{
           QString(QLatin1String("")), u"<a & b> \"c\" ']]>"_s,
           u" lines\r\nand\rreturns\n\ttab \r"_s, QString::fromUtf8("Zo\xC3\xAB \xF0\x9F\x90\xB1"),
           kLeast, kGreatest, 0.1, -0.0, std::numeric_limits<double>::max(),
           std::numeric_limits<double>::denorm_min(), kInfinity, false, UtcDate(1, 1, 1, 0, 0, 0),
           UtcDate(9999, 12, 31, 23, 59, 59), QByteArray("\0\xFF\n", 3), QByteArray(""),
           QVariantList{QVariantList{}, QVariantMap{}, u"x"_s},
           QVariantMap{{u""_s, 1.5}, {u"a<\r"_s, QVariantList{true}}}}) {
    const auto xml = WritePropertyListXml(value);
    ASSERT_TRUE(xml.has_value()) << Shown(value);
    EXPECT_TRUE(xml->startsWith(kHead));
    ExpectValue(*xml, value);
  }
  const auto nan = ReadPropertyListXml(*WritePropertyListXml(std::nan("")));
  EXPECT_TRUE(nan && std::isnan(nan->toDouble()));
}

TEST(PropertyList, RefusesToWriteWhatTheFormatCannotHold) {
  QVariant deep = QVariantList{};
  for (int i = 0; i < kMaxPropertyListDepth; ++i) deep = QVariantList{deep};
  for (const QVariant& value : std::initializer_list<QVariant>{
           QVariant(), QVariantList{QVariant()}, QStringList{u"a"_s}, QString(QChar(0xD800)),
           QString(QChar(0xDC00)) + QChar(0xD800), QString(QChar(1)), QString(QChar(0)),
           QString(QChar(0xFFFF)), QVariantMap{{QString(QChar(2)), true}}, QDateTime(),
           UtcDate(10000, 1, 1, 0, 0, 0), UtcDate(-1, 1, 1, 0, 0, 0), deep,
           QString(qsizetype(kMaxPropertyListBytes), QChar(u'a'))}) {
    EXPECT_FALSE(WritePropertyListXml(value).has_value()) << Shown(value).substr(0, 100);
  }
}

// ---- Numbers ----

TEST(PropertyList, ConvertsNumbersByTruncating) {
  using Int = std::optional<std::int32_t>;
  const std::tuple<QVariant, std::optional<double>, Int, Int> kRows[] = {
      {12.9, 12.9, 12, 12},
      {-12.9, -12.9, -12, -12},
      {(qlonglong(1) << 32) + 5, 4294967301.0, 5, 5},
      {qlonglong(300), 300, 300, 44},
      {kGreatest, 18446744073709551616.0, -1, -1},
      {1e300, 1e300, 2147483647, 127},
      {-kInfinity, -kInfinity, -2147483647 - 1, -128},
      {u"5"_s, {}, {}, {}},
      {true, {}, {}, {}},
      {QVariant(), {}, {}, {}},
  };
  for (const auto& [value, asDouble, asInt32, asInt8] : kRows) {
    SCOPED_TRACE(Shown(value));
    EXPECT_EQ(NumberAsDouble(value), asDouble);
    EXPECT_EQ(NumberAsInt32(value), asInt32);
    EXPECT_EQ(NumberAsInt8(value), asInt8);
  }
  EXPECT_EQ(NumberAsInt32(std::nan("")), 0);
}

TEST(PropertyList, ReadsNumbersOutOfText) {
  const std::pair<const char*, std::int32_t> kRows[] = {
      {"", 0},
      {"  -1", -1},
      {"+3x", 3},
      {"x3", 0},
      {"- 4", 0},
      {"--1", 0},
      {"007", 7},
      {"2147483648", 2147483647},
      {"-99999999999999999999999999", -2147483647 - 1},
  };
  for (const auto& [text, expected] : kRows)
    EXPECT_EQ(StringIntValue(QLatin1String(text)), expected) << text;
}

}  // namespace
}  // namespace vardell
