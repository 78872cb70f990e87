#include "Common Sources/CompressedArchive.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QTemporaryDir>
#include <QTimeZone>
#include <QtEndian>
#include <cmath>
#include <limits>
#include <new>

#include "Common Sources/Caps.h"
#include "Common Sources/FileSystem.h"
#include "Common Sources/ObjectArchive.h"
#include "Common Sources/PropertyList.h"
#include "tests/support/Program.h"
#include "tests/support/PropertyListValues.h"

namespace {
std::size_t largestArray = 0;  // asked for since it was set to 0
}

void* operator new[](std::size_t size) {
  largestArray = std::max(largestArray, size);
  return ::operator new(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  largestArray = std::max(largestArray, size);
  return ::operator new(size, std::nothrow);
}
void operator delete[](void* array) noexcept {
  ::operator delete(array);
}
void operator delete[](void* array, std::size_t) noexcept {
  ::operator delete(array);
}

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

constexpr qlonglong kLeast = std::numeric_limits<qlonglong>::min();
constexpr qulonglong kGreatest = std::numeric_limits<qulonglong>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr std::uint32_t kModes[] = {kArchiveXml, kArchiveSequential, kArchiveKeyed};

QDateTime UtcDate(int year, int month, int day, int second = 0, int milliseconds = 0) {
  return QDateTime(QDate(year, month, day), QTime(23, 59, second, milliseconds), Qt::UTC);
}

std::string Shown(const QVariant& value) {
  QString text;
  QDebug(&text) << value;
  return text.left(200).toStdString();
}

using Values = std::initializer_list<QVariant>;

void ExpectBack(const QVariant& value, std::uint32_t mode, const QVariant& expected) {
  const QByteArray blob = CreateCompressedArchive(value, mode);
  ASSERT_FALSE(blob.isNull()) << Shown(value) << " in mode " << mode;
  const QVariant back = CopyObjectFromCompressedArchive(blob, mode);
  EXPECT_TRUE(test::SameValue(back, expected)) << "mode " << mode << " gave " << Shown(back);
}

void ExpectRefused(Values values) {
  for (const QVariant& value : values) {
    for (const std::uint32_t mode : kModes)
      EXPECT_TRUE(CreateCompressedArchive(value, mode).isNull()) << Shown(value) << " in " << mode;
  }
}

QVariant Nested(int depth) {
  QVariant value = QVariantMap{};
  for (int i = 1; i < depth; ++i)
    value = i % 2 == 0 ? QVariant(QVariantMap{{u"k"_s, value}})
                       : QVariant(QVariantList{value, qlonglong(i)});
  return value;
}

QVariant Everything() {
  const QVariant date = UtcDate(2024, 2, 29, 59);
  QVariantList list{u"a"_s, u"a"_s, u"5"_s, true, false, date, date};
  list << 5.0 << 1.0 << -0.0 << 0.0 << kInfinity << std::nan("") << QByteArray("\0\xFF", 2);
  list << kLeast << kGreatest << qlonglong(5) << qlonglong(1) << qlonglong(70000) << QByteArray("");
  return QVariantMap{{u""_s, u""_s},
                     {u"$null"_s, u"$null"_s},
                     {u"NS.keys"_s, QVariantMap{}},
                     {u"a"_s, QVariantList{}},
                     {u"Zo\u00EB \U0001F431"_s, list},
                     {u"e\u0301 \u05E9\u05DC \u200F"_s,
                      QVariantList{QVariant(list), QVariantMap{{u"a"_s, list}}}}};
}

QVariantMap Large() {
  QVariantMap map;
  for (int i = 0; i < 20000; ++i)
    map.insert(u"key %1"_s.arg(i), QVariantList{qlonglong(i), QString::number(i % 100), i / 3.0});
  map.insert(u"text"_s, QString(300000, QChar(0x5D0)));
  map.insert(u"data"_s, QByteArray(2000000, 'x'));
  return map;
}

const QVariant kSmall = QVariantMap{{u"a"_s, QVariantList{true, qlonglong(5)}}};

// ---- Packing and unpacking ----

TEST(CompressedArchive, GivesBackAnEqualValueOfAPropertyListsType) {
  const QDateTime zoned(QDate(2024, 3, 1), QTime(0, 59), QTimeZone(3600));
  for (const std::uint32_t mode : kModes) {
    for (const QVariant& value :
         Values{Everything(), Large(), Nested(kMaxPropertyListDepth), QVariantMap{}, QVariantList{},
                u""_s, QByteArray(""), true, kLeast, kGreatest, 0.1, std::nan(""), UtcDate(1, 1, 1),
                UtcDate(9999, 12, 31, 59), u"\uFEFFx"_s})
      ExpectBack(value, mode, value);
    for (const QVariant& number : Values{5u, 5, qulonglong(5)})
      ExpectBack(number, mode, qlonglong(5));
    ExpectBack(zoned, mode, UtcDate(2024, 2, 29));
  }
  // What each mode keeps.
  ExpectBack(UtcDate(1899, 12, 31, 58, 999), kArchiveXml, UtcDate(1899, 12, 31, 58));
  for (const std::uint32_t mode : {kArchiveSequential, kArchiveKeyed}) {
    for (const QVariant& value : Values{
             UtcDate(1899, 12, 31, 58, 999), UtcDate(1, 1, 1, 0, 1), UtcDate(9999, 12, 31, 59, 999),
             QString(QChar(0)) + QChar(0xFFFF), QByteArray(20 << 20, '\0')})
      ExpectBack(value, mode, value);
  }
}

TEST(CompressedArchive, RefusesValuesThatItCannotHold) {
  ExpectRefused({QVariant(), QVariantList{QVariant()}, QStringList{u"a"_s}, QDateTime(),
                 QString(QChar(0xD800)), QVariantMap{{QString(QChar(0xDC00)), true}},
                 UtcDate(10000, 1, 1), UtcDate(-1, 1, 1), Nested(kMaxPropertyListDepth + 1)});
  ExpectRefused({QVariantList(kMaxArchiveNodes, true), QByteArray(kMaxArchiveBytes, 'x'),
                 QString(kMaxArchiveBytes + 1, u'x'), QVariantList(9, QString(8 << 20, u'x'))});
  EXPECT_TRUE(CreateCompressedArchive(QByteArray(6 << 20, 'x'), kArchiveXml).isNull());
}

TEST(CompressedArchive, KnowsThreeModes) {
  for (const std::uint32_t made : kModes) {
    const QByteArray blob = CreateCompressedArchive(kSmall, made);
    for (const std::uint32_t mode : {0u, 1u, 2u, 3u, 4u, 0xFFFFFFFFu})
      EXPECT_EQ(CopyObjectFromCompressedArchive(blob, mode).isValid(), mode == made) << mode;
  }
  for (const std::uint32_t mode : {0u, 4u, 0xFFFFFFFFu})
    EXPECT_TRUE(CreateCompressedArchive(kSmall, mode).isNull());
}

TEST(CompressedArchive, LogsSizesAndTheRawDigest) {
  ::openlog("archive", LOG_PERROR, LOG_USER);
  bool hasZero = false;
  for (int i = 0; i < 1000 && !hasZero; ++i) {
    ::testing::internal::CaptureStderr();
    const QByteArray blob = CreateCompressedArchive(i, kArchiveSequential);
    const std::string line = ::testing::internal::GetCapturedStderr();
    const QByteArray digest(blob.mid(4, 16).constData());
    hasZero = digest.size() > 0 && digest.size() < 16;
    ASSERT_EQ(line, "archive: AR compressed data size:" + std::to_string(blob.size() - 20) +
                        ", uncompressed: 25, md5:" + digest.toStdString() + "\n");
  }
  ::openlog("archive", 0, LOG_USER);
  ::closelog();
  EXPECT_TRUE(hasZero);
}

// ---- Damage ----

TEST(CompressedArchive, RefusesDamageAnywhere) {
  for (const std::uint32_t mode : kModes) {
    const QByteArray blob = CreateCompressedArchive(kSmall, mode);
    for (qsizetype i = 0; i < blob.size(); ++i) {
      for (const char flip : {'\x01', '\x80', '\xFF'}) {
        QByteArray damaged = blob;
        damaged[i] = static_cast<char>(damaged[i] ^ flip);
        EXPECT_FALSE(CopyObjectFromCompressedArchive(damaged, mode).isValid()) << i;
      }
      EXPECT_FALSE(CopyObjectFromCompressedArchive(blob.first(i), mode).isValid()) << i;
    }
    EXPECT_FALSE(CopyObjectFromCompressedArchive(blob + '\0', mode).isValid());
    EXPECT_FALSE(CopyObjectFromCompressedArchive(QByteArray(), mode).isValid());
  }
}

TEST(CompressedArchive, RefusesLengthsThatLieBeforeItAllocates) {
  for (const std::uint32_t mode : kModes) {
    QByteArray blob = CreateCompressedArchive(kSmall, mode);
    const auto length = qFromLittleEndian<std::uint32_t>(blob.constData());
    const auto most = static_cast<std::uint32_t>(blob.size() - 20) * 1032;
    const auto largestAskedFor = [&](std::uint32_t lie) {
      qToLittleEndian(lie, blob.data());
      largestArray = 0;
      EXPECT_FALSE(CopyObjectFromCompressedArchive(blob, mode).isValid()) << lie;
      return largestArray;
    };
    for (const std::uint32_t lie : {0u, 1u, length - 1, length + 1, most})
      EXPECT_LE(largestAskedFor(lie), std::max<std::size_t>(lie, 4096));
    for (const std::uint32_t lie : {most + 1, std::uint32_t{kMaxArchiveBytes}, 0xFFFFFFFFu})
      EXPECT_EQ(largestAskedFor(lie), 0u);
  }
}

TEST(CompressedArchive, RefusesMoreThanTheModeAllows) {
  const QByteArray blob = CreateCompressedArchive(QByteArray(9 << 20, '\0'), kArchiveSequential);
  largestArray = 0;
  EXPECT_FALSE(CopyObjectFromCompressedArchive(blob, kArchiveXml).isValid());
  EXPECT_EQ(largestArray, 0u);
}

// ---- The sequential archive ----

TEST(ObjectArchive, HasTheBytesThatItsHeaderShows) {
  const QByteArray bytes = QByteArray("VardellValue\1\0\0\0", 16) +
                           QByteArray("\x0A\1\0\0\0\1\0\0\0a\3\5\0\0\0\0\0\0\0", 19);
  const QVariant value = QVariantMap{{u"a"_s, qlonglong(5)}};
  EXPECT_EQ(WriteObjectArchive(value), bytes);
  EXPECT_EQ(ReadObjectArchive(bytes), value);
}

TEST(ObjectArchive, RefusesWhatIsNotExactlyOneValue) {
  const QByteArray head("VardellValue\1\0\0\0", 16);
  const auto count = [](std::uint32_t number) {
    QByteArray bytes(4, '\0');
    qToLittleEndian(number, bytes.data());
    return bytes;
  };
  const auto text = [&](const QByteArray& utf8) { return count(utf8.size()) + utf8; };
  const auto entry = [&](const QByteArray& key) { return text(key) + '\2'; };
  const QByteArray array = "\x09", map = "\x0A";
  ASSERT_TRUE(ReadObjectArchive(head + map + count(2) + entry("a") + entry("b")).has_value());
  for (const QByteArray& bytes :
       {QByteArray(), head, head + '\0', head + '\x0B', head + "\2\2",
        QByteArray("VardellValue\2\0\0\0\2", 17), "bardellValue" + head.mid(12) + '\2',
        head + '\3' + QByteArray(7, '\0'), head + '\4' + QByteArray(8, '\1'),
        head + '\6' + QByteArray(8, '\x7F'), head + '\7' + count(2) + 'a',
        head + '\7' + text("\xFF"), head + '\7' + text("\xED\xA0\x80"),
        head + '\7' + text("\xE2\x82"), head + '\x08' + count(0xFFFFFFFF), head + array + count(1),
        head + array + count(0xFFFFFFFF) + '\2', head + map + count(1) + text("a"),
        head + map + count(0x33333334) + entry("a"),
        head + map + count(2) + entry("a") + entry("a"),
        head + map + count(2) + entry("b") + entry("a"),
        head + (array + count(1)).repeated(kMaxPropertyListDepth + 1) + '\2',
        // Each count is smaller than what is left, and all of them together are not.
        head + (array + count(3 << 20)).repeated(60) + QByteArray(4 << 20, '\2')}) {
    EXPECT_FALSE(ReadObjectArchive(bytes).has_value()) << bytes.left(60).toHex().toStdString();
  }
}

// ---- The keyed archive, and another reader and writer of that format ----

class KeyedArchives : public ::testing::Test {
 protected:
  void Run(std::vector<std::string> words) {
    const char script[] = VARDELL_SOURCE_DIR "/tests/Common Sources/KeyedArchives.py";
    words.insert(words.begin(), {"/usr/bin/python3", "-B", script});
    const test::Finished finished = test::Run(words, {});
    ASSERT_EQ(finished.status, 0) << finished.output.toStdString();
  }
  QByteArray Path(const QString& name) const { return folder.filePath(name).toUtf8(); }
  QByteArray Load(const QString& name) const {
    return LoadFile(Path(name), kMaxArchiveBytes).value_or(QByteArray());
  }

  QTemporaryDir folder;
};

TEST_F(KeyedArchives, AreReadByAnotherReader) {
  for (const QVariant& value :
       Values{Everything(), Large(), Nested(kMaxPropertyListDepth), QVariantMap{}, true,
              UtcDate(1899, 12, 31, 58, 999), kGreatest, QString(70000, QChar(0xEB))}) {
    SCOPED_TRACE(Shown(value));
    const QByteArray keyed = Path(u"keyed"_s), xml = Path(u"xml"_s);
    ASSERT_EQ(StoreFile(keyed, CreateCompressedArchive(value, kArchiveKeyed)), 0);
    ASSERT_EQ(StoreFile(xml, CreateCompressedArchive(value, kArchiveXml)), 0);
    Run({"check", keyed.toStdString(), xml.toStdString()});
  }
}

TEST_F(KeyedArchives, OfAnotherWriterAreReadOrRefused) {
  Run({"make", folder.path().toStdString()});
  const QStringList names = QDir(folder.path()).entryList({u"*.blob"_s});
  int accepted = 0;
  for (const QString& name : names) {
    SCOPED_TRACE(name.toStdString());
    const QVariant value = CopyObjectFromCompressedArchive(Load(name), kArchiveKeyed);
    const QByteArray xml = Load(name.chopped(5) + u".xml"_s);
    EXPECT_EQ(value.isValid(), !xml.isEmpty());
    if (xml.isEmpty()) continue;
    EXPECT_TRUE(test::SameValue(value, ReadPropertyListXml(xml).value())) << Shown(value);
    ++accepted;
  }
  EXPECT_EQ(accepted, 5);
  EXPECT_EQ(names.size(), 56);
}

}  // namespace
}  // namespace vardell
