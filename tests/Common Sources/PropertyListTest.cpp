#include "Common Sources/PropertyList.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <cmath>
#include <limits>

#include "Common Sources/Caps.h"

namespace vardell {
namespace {

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

void ExpectValue(const std::optional<QVariant>& seen, const QVariant& expected) {
  ASSERT_TRUE(seen.has_value());
  EXPECT_EQ(seen->typeId(), expected.typeId()) << Shown(seen);
  EXPECT_EQ(*seen, expected) << Shown(seen);
}

TEST(PropertyList, ReadsEachKindOfValue) {
  const struct {
    const char* behaviour;
    const char* xml;
    QVariant expected;
  } kRows[] = {
      {"a string keeps its blanks", "<string> a\n b </string>", QStringLiteral(" a\n b ")},
      {"an empty string", "<string/>", QString(QLatin1String(""))},
      {"entities of XML itself", "<string>&lt;&amp;&#65;&#x42;</string>", QStringLiteral("<&AB")},
      {"a marked section is text", "<string>a<![CDATA[<b>]]></string>", QStringLiteral("a<b>")},
      {"a comment within text is none", "<string>a<!-- x -->b</string>", QStringLiteral("ab")},
      {"an integer", "<integer>42</integer>", qlonglong(42)},
      {"blanks around a number", "<integer>\n 7\t</integer>", qlonglong(7)},
      {"a plus sign", "<integer>+5</integer>", qlonglong(5)},
      {"the least integer", "<integer>-9223372036854775808</integer>",
       std::numeric_limits<qlonglong>::min()},
      {"the greatest signed one", "<integer>9223372036854775807</integer>",
       std::numeric_limits<qlonglong>::max()},
      {"one more is unsigned", "<integer>9223372036854775808</integer>", qulonglong(1) << 63},
      {"the greatest of all", "<integer>18446744073709551615</integer>",
       std::numeric_limits<qulonglong>::max()},
      {"a real", "<real>-12.5e1</real>", -125.0},
      {"a real without a point", "<real>3</real>", 3.0},
      {"a negative infinity", "<real>-infinity</real>", -std::numeric_limits<double>::infinity()},
      {"true", "<true/>", true},
      {"false, with a comment in it", "<false><!-- no --></false>", false},
      {"a date", "<date>2024-02-29T23:59:59Z</date>", UtcDate(2024, 2, 29, 23, 59, 59)},
      {"data across lines", "<data>\n  aGVs\n  bG8=\n</data>", QByteArray("hello")},
      {"no data", "<data></data>", QByteArray("")},
      {"an empty dictionary", "<dict/>", QVariantMap()},
      {"an empty array", "<array> </array>", QVariantList()},
      {"nested ones", "<dict><key>a</key><array><true/><integer>1</integer></array></dict>",
       QVariantMap{{QStringLiteral("a"), QVariantList{true, qlonglong(1)}}}},
      {"keys are told apart by case", "<dict><key>a</key><true/><key>A</key><false/></dict>",
       QVariantMap{{QStringLiteral("a"), true}, {QStringLiteral("A"), false}}},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.behaviour);
    ExpectValue(ReadPropertyListXml(Plist(row.xml)), row.expected);
  }
}

TEST(PropertyList, ReadsDocumentsAroundTheValue) {
  const struct {
    const char* behaviour;
    QByteArray xml;
  } kRows[] = {
      {"no declaration, no document type", "<plist><true/></plist>"},
      {"a byte order mark", "\xEF\xBB\xBF" + Plist("<true/>")},
      {"comments and blanks on both sides",
       "<!-- a -->\n<plist version=\"1.0\">\n<true/>\n</plist>\n<!-- b -->\n"},
      {"a lower-case encoding", "<?xml version='1.0' encoding='utf-8'?><plist><true/></plist>"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.behaviour);
    ExpectValue(ReadPropertyListXml(row.xml), true);
  }
}

// ---- What is refused ----

TEST(PropertyList, RefusesValuesThatAreNone) {
  const struct {
    const char* behaviour;
    const char* xml;
  } kRows[] = {
      {"an integer with text behind it", "<integer>12abc</integer>"},
      {"an empty integer", "<integer></integer>"},
      {"a sign alone", "<integer>-</integer>"},
      {"two signs", "<integer>+-5</integer>"},
      {"an integer with a fraction", "<integer>1.5</integer>"},
      {"an integer above 64 bits", "<integer>18446744073709551616</integer>"},
      {"an integer below 64 bits", "<integer>-9223372036854775809</integer>"},
      {"digits of another script", "<integer>\xD9\xA1</integer>"},
      {"a real that is a word", "<real>abc</real>"},
      {"an empty real", "<real/>"},
      {"a real with text behind it", "<real>1.5x</real>"},
      {"a real beyond the range", "<real>1e999</real>"},
      {"a hexadecimal real", "<real>0x1p3</real>"},
      {"a real with two signs", "<real>--1</real>"},
      {"a real with thousands", "<real>1,000</real>"},
      {"a date that is none", "<date>yesterday</date>"},
      {"a day that does not exist", "<date>2023-02-29T00:00:00Z</date>"},
      {"an hour that does not exist", "<date>2023-02-28T24:00:00Z</date>"},
      {"a date without zone", "<date>2023-02-28T00:00:00</date>"},
      {"a date with a sign in it", "<date>+023-02-28T00:00:00Z</date>"},
      {"the year 0", "<date>0000-01-01T00:00:00Z</date>"},
      {"base64 with other characters", "<data>aGV*bG8=</data>"},
      {"base64 without its padding", "<data>aGVsbG8</data>"},
      {"base64 with bits left over", "<data>aGVsbG9=</data>"},
      {"true with text", "<true>yes</true>"},
      {"an unknown element", "<set/>"},
      {"an element of another case", "<Dict/>"},
      {"an attribute", "<string lang=\"en\">a</string>"},
      {"an element within text", "<string>a<b/></string>"},
      {"a duplicate key", "<dict><key>a</key><true/><key>a</key><true/></dict>"},
      {"a key without a value", "<dict><key>a</key></dict>"},
      {"a value without a key", "<dict><true/></dict>"},
      {"a value in a key's place", "<dict><string>a</string><true/></dict>"},
      {"two keys running", "<dict><key>a</key><key>b</key></dict>"},
      {"a key outside a dictionary", "<key>a</key>"},
      {"text in a dictionary", "<dict>text</dict>"},
      {"blank marked text in an array", "<array><![CDATA[ ]]></array>"},
      {"text in an array", "<array>1</array>"},
      {"an unknown entity", "<string>&unknown;</string>"},
      {"a character that XML forbids", "<string>&#1;</string>"},
      {"a raw control character", "<string>\x01</string>"},
      {"no value", ""},
      {"two values", "<true/><true/>"},
      {"an end of another element", "<array></dict>"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.behaviour);
    const auto value = ReadPropertyListXml(Plist(row.xml));
    EXPECT_FALSE(value.has_value()) << Shown(value);
  }
}

TEST(PropertyList, RefusesDocumentsThatAreNone) {
  const struct {
    const char* behaviour;
    QByteArray xml;
  } kRows[] = {
      {"nothing", ""},
      {"no XML", "hello"},
      {"binary", QByteArray("bplist00\xd0\x08\0\0", 12)},
      {"no plist element", "<dict/>"},
      {"another root", "<list><true/></list>"},
      {"a plist of another version", "<plist version=\"2.0\"><true/></plist>"},
      {"a plist with a namespace", "<plist xmlns=\"urn:a\"><true/></plist>"},
      {"cut off", Plist("<true/>").chopped(10)},
      {"text after the end", Plist("<true/>") + "x"},
      {"an element after the end", Plist("<true/>") + "<plist/>"},
      {"a zero byte after the end", Plist("<true/>") + QByteArray(1, '\0')},
      {"invalid UTF-8", Plist("<string>\xFF</string>")},
      {"an overlong character", Plist("<string>\xC0\xAF</string>")},
      {"an encoded surrogate", Plist("<string>\xED\xA0\x80</string>")},
      {"a character cut off at the end", Plist("<true/>") + "\xE2\x82"},
      {"another encoding", "<?xml version='1.0' encoding='UTF-16'?><plist><true/></plist>"},
      {"an entity of its own",
       "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>&a;</string></plist>"},
      {"an entity from a file",
       "<!DOCTYPE plist [<!ENTITY a SYSTEM \"/etc/passwd\">]><plist><string>&a;</string></plist>"},
      {"an empty internal subset", "<!DOCTYPE plist []><plist><true/></plist>"},
      {"the type of another document", "<!DOCTYPE html><plist><true/></plist>"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.behaviour);
    const auto value = ReadPropertyListXml(row.xml);
    EXPECT_FALSE(value.has_value()) << Shown(value);
  }
}

TEST(PropertyList, RefusesWhatIsTooDeepOrTooLarge) {
  const auto nested = [](int depth) {
    return Plist(QByteArray("<array>").repeated(depth) + QByteArray("</array>").repeated(depth));
  };
  EXPECT_TRUE(ReadPropertyListXml(nested(kMaxPropertyListDepth)).has_value());
  EXPECT_FALSE(ReadPropertyListXml(nested(kMaxPropertyListDepth + 1)).has_value());
  EXPECT_FALSE(ReadPropertyListXml(nested(300000)).has_value());
  EXPECT_FALSE(ReadPropertyListXml(QByteArray("<array>").repeated(500000)).has_value());

  const qsizetype room =
      static_cast<qsizetype>(kMaxPropertyListBytes) - Plist("<string></string>").size();
  const auto withText = [](qsizetype size) {
    return Plist("<string>" + QByteArray(size, 'a') + "</string>");
  };
  EXPECT_TRUE(ReadPropertyListXml(withText(room)).has_value());
  EXPECT_FALSE(ReadPropertyListXml(withText(room + 1)).has_value());
}

// ---- Writing ----

TEST(PropertyList, WritingAndReadingGivesTheSameValue) {
  const QVariant kValues[] = {
      QString(QLatin1String("")),
      QStringLiteral("<a & b> \"c\" ']]>"),
      QStringLiteral(" lines\r\nand\rreturns\n\ttab "),
      QStringLiteral("\r"),
      QString::fromUtf8("Zo\xC3\xAB \xF0\x9F\x90\xB1"),
      qlonglong(-1),
      std::numeric_limits<qlonglong>::min(),
      std::numeric_limits<qulonglong>::max(),
      0.1,
      -0.0,
      std::numeric_limits<double>::max(),
      std::numeric_limits<double>::denorm_min(),
      std::numeric_limits<double>::infinity(),
      true,
      false,
      UtcDate(1, 1, 1, 0, 0, 0),
      UtcDate(9999, 12, 31, 23, 59, 59),
      QByteArray("\0\xFF\n", 3),
      QByteArray(""),
      QVariantList{QVariantList{}, QVariantMap{}, QStringLiteral("x")},
      QVariantMap{{QStringLiteral(""), 1.5}, {QStringLiteral("a<\r"), QVariantList{true}}},
  };
  for (const QVariant& value : kValues) {
    SCOPED_TRACE(Shown(value));
    const auto xml = WritePropertyListXml(value);
    ASSERT_TRUE(xml.has_value());
    ExpectValue(ReadPropertyListXml(*xml), value);
  }
  const auto nan = ReadPropertyListXml(*WritePropertyListXml(std::nan("")));
  ASSERT_TRUE(nan.has_value());
  EXPECT_TRUE(std::isnan(nan->toDouble()));
}

TEST(PropertyList, WritesTheUsualDocument) {
  const auto xml = WritePropertyListXml(QVariantMap{{QStringLiteral("Credit"), qlonglong(12)}});
  ASSERT_TRUE(xml.has_value());
  EXPECT_EQ(xml->toStdString(), kHead + std::string("<plist version=\"1.0\">\n"
                                                    "\t<dict>\n"
                                                    "\t\t<key>Credit</key>\n"
                                                    "\t\t<integer>12</integer>\n"
                                                    "\t</dict>\n"
                                                    "</plist>\n"));
}

TEST(PropertyList, RefusesToWriteWhatTheFormatCannotHold) {
  QVariant deep = QVariantList{};
  for (int i = 0; i < kMaxPropertyListDepth; ++i) deep = QVariantList{deep};
  const struct {
    const char* behaviour;
    QVariant value;
  } kRows[] = {
      {"nothing at all", QVariant()},
      {"nothing in a list", QVariantList{QVariant()}},
      {"another type", QVariant(QStringList{QStringLiteral("a")})},
      {"a lone surrogate", QString(QChar(0xD800))},
      {"surrogates the wrong way round", QString(QChar(0xDC00)) + QChar(0xD800)},
      {"a control character", QString(QChar(1))},
      {"a zero", QString(QChar(0))},
      {"U+FFFF", QString(QChar(0xFFFF))},
      {"a bad key", QVariantMap{{QString(QChar(2)), true}}},
      {"an invalid date", QDateTime()},
      {"a date beyond four digits", UtcDate(10000, 1, 1, 0, 0, 0)},
      {"a date before the year 1", UtcDate(-1, 1, 1, 0, 0, 0)},
      {"one container too many", deep},
      {"more than a reader takes",
       QString(static_cast<qsizetype>(kMaxPropertyListBytes), QChar(u'a'))},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.behaviour);
    EXPECT_FALSE(WritePropertyListXml(row.value).has_value());
  }
}

// ---- Numbers ----

TEST(PropertyList, ConvertsNumbersByTruncating) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const struct {
    const char* behaviour;
    QVariant value;
    std::optional<double> asDouble;
    std::optional<std::int32_t> asInt32;
    std::optional<int> asInt8;
  } kRows[] = {
      {"an integer", qlonglong(60), 60, 60, 60},
      {"a real loses its fraction", 12.9, 12.9, 12, 12},
      {"so does a negative one", -12.9, -12.9, -12, -12},
      {"a wide integer loses its upper bits", (qlonglong(1) << 32) + 5, 4294967301.0, 5, 5},
      {"300 in eight bits", qlonglong(300), 300, 300, 44},
      {"an unsigned one", std::numeric_limits<qulonglong>::max(), 18446744073709551616.0, -1, -1},
      {"a huge real", 1e300, 1e300, 2147483647, 127},
      {"a huge negative real", -1e300, -1e300, -2147483647 - 1, -128},
      {"infinity", kInfinity, kInfinity, 2147483647, 127},
      {"text is no number", QStringLiteral("5"), {}, {}, {}},
      {"true is no number", true, {}, {}, {}},
      {"nothing is no number", QVariant(), {}, {}, {}},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.behaviour);
    EXPECT_EQ(NumberAsDouble(row.value), row.asDouble);
    EXPECT_EQ(NumberAsInt32(row.value), row.asInt32);
    const auto asInt8 = NumberAsInt8(row.value);
    EXPECT_EQ(asInt8 ? std::optional<int>(*asInt8) : std::nullopt, row.asInt8);
  }
  EXPECT_EQ(NumberAsInt32(std::nan("")), 0);
}

TEST(PropertyList, TakesOnlyBooleansAsBooleans) {
  EXPECT_EQ(BooleanValue(true), true);
  EXPECT_EQ(BooleanValue(false), false);
  EXPECT_EQ(BooleanValue(qlonglong(1)), std::nullopt);
  EXPECT_EQ(BooleanValue(QStringLiteral("true")), std::nullopt);
  EXPECT_EQ(BooleanValue(QVariant()), std::nullopt);
}

TEST(PropertyList, ReadsNumbersOutOfText) {
  const struct {
    const char* text;
    std::int32_t expected;
  } kRows[] = {
      {"", 0},
      {"2", 2},
      {"  -1", -1},
      {"+3x", 3},
      {"x3", 0},
      {"- 4", 0},
      {"1 2", 1},
      {"--1", 0},
      {"2147483648", 2147483647},
      {"007", 7},
      {"-2147483649", -2147483647 - 1},
      {"99999999999999999999999999", 2147483647},
      {"-99999999999999999999999999", -2147483647 - 1},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(StringIntValue(QString::fromLatin1(row.text)), row.expected) << row.text;
  }
}

}  // namespace
}  // namespace vardell
