#include "Common Sources/PropertyListFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QTemporaryDir>
#include <tuple>

#include "Common Sources/FileSystem.h"
#include "Common Sources/PropertyList.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

const QVariantMap kOld{{u"old"_s, QString(1000, QChar(u'l'))}};
const QVariantMap kNew{{u"new"_s, qlonglong(1)}};

class PropertyListFiles : public ::testing::Test {
 protected:
  void SetUp() override { qputenv("VARDELL_TEST_ROOT", folder.path().toUtf8()); }
  void TearDown() override { qunsetenv("VARDELL_TEST_ROOT"); }

  QString Path(const QString& name) const { return folder.filePath(name); }
  QString Path(const char* name) const { return Path(QString::fromUtf8(name)); }
  void Put(const char* name, const QByteArray& bytes) {
    ASSERT_EQ(StoreFile(Path(name).toUtf8(), bytes), 0);
  }
  void MakePipe(const char* name) { ASSERT_EQ(::mkfifo(Path(name).toUtf8().constData(), 0600), 0); }
  static void ExpectFile(const QString& path, const QVariant& value) {
    EXPECT_EQ(ReadPropertyListFromPath(path).value_or(QVariant()), value) << path.toStdString();
  }

  QTemporaryDir folder;
};

TEST_F(PropertyListFiles, WritesAndReadsUnderNamesThatUrlsQuote) {
  for (const char* name : {"a b.plist", "50%25.plist", "what?#.plist", "Z\xC3\xBC"}) {
    for (const bool inPlace : {true, false}) {
      const QString path = Path(name);
      EXPECT_EQ(WritePropertyListToPath(kOld, path, inPlace), 0);
      ExpectFile(path, kOld);
      EXPECT_EQ(WritePropertyListToURL(kNew, QUrl::fromLocalFile(path), inPlace), 0);
      ExpectFile(path, kNew);
      EXPECT_TRUE(QFile::exists(path));
      EXPECT_FALSE(QFile::exists(path + u".tmp"_s));
      ASSERT_TRUE(QFile::remove(path));
    }
  }
}

TEST_F(PropertyListFiles, SetsOneKeyOfADictionary) {
  const QString key = u"new"_s;
  const QString path = Path("settings.plist");
  const auto set = [&](const QVariant& value) {
    return SetPropertyListFileValue(path, key, value);
  };
  EXPECT_TRUE(set(false)) << "no file yet";
  EXPECT_TRUE(set(qlonglong(1)));
  ExpectFile(path, kNew);
  EXPECT_FALSE(set(QVariant())) << "a value that is none keeps the file";
  ExpectFile(path, kNew);
  ASSERT_EQ(WritePropertyListToPath(kOld, path, true), 0);
  EXPECT_TRUE(set(qlonglong(1)));
  ExpectFile(path, QVariantMap{*kOld.constKeyValueBegin(), *kNew.constKeyValueBegin()});
  Put("settings.plist", "not a property list");
  EXPECT_TRUE(set(qlonglong(1)));
  ExpectFile(path, kNew);
}

TEST_F(PropertyListFiles, KnowsItsPlaces) {
  EXPECT_EQ(CopySupportFolderURL().toLocalFile(), Path("Library/Application Support/Vardell/"));
  EXPECT_TRUE(QFile::exists(Path("Library/Application Support")));
  EXPECT_FALSE(QFile::exists(Path("Library/Application Support/Vardell")));
  EXPECT_EQ(QString::fromUtf8(CopyMessagesFilePath().get()),
            Path("Library/Application Support/Vardell/messagesFile"));

  EXPECT_FALSE(SetGlobalSettingsValue(u"new"_s, qlonglong(1)));
  ASSERT_TRUE(QDir().mkpath(Path("Library/Application Support/Vardell 5")));
  EXPECT_TRUE(SetGlobalSettingsValue(u"new"_s, qlonglong(1)));
  ExpectFile(Path("Library/Application Support/Vardell 5/com.brenwick.vardell5.plist"), kNew);
}

TEST_F(PropertyListFiles, TakesTheNameOfAUrl) {
  const QString longest(254, QChar(u'a'));
  const std::tuple<QUrl, std::int32_t, QString> kRows[] = {
      {QUrl(u"file:///a/b%20c.plist"_s), 0, u"b c.plist"_s},
      {QUrl(u"file:///a/b/"_s), 0, u"b"_s},
      {FileUrl(u'/' + longest), 0, longest},
      {FileUrl(u'/' + longest + u'a'), -108, {}},
      {QUrl(), -1, {}},
      {QUrl(u"file:///"_s), -1, {}},
  };
  for (const auto& [url, status, expected] : kRows) {
    QString name = u"before"_s;
    EXPECT_EQ(GetFileNameFromURL(url, &name), status) << url.toString().toStdString();
    EXPECT_EQ(name, expected);
  }
}

// ---- What fails ----

TEST_F(PropertyListFiles, ReadsNothingFromWhatIsNoFile) {
  Put("text", "hello");
  Put("empty", "");
  Put("huge", "");
  ASSERT_TRUE(QFile::resize(Path("huge"), qint64(1) << 40));
  MakePipe("pipe");
  const QString list = Path("list");
  ASSERT_EQ(WritePropertyListToPath(kOld, list, true), 0);
  for (const char* name : {"text", "empty", "huge", "pipe", "missing", ".", "text/x"})
    EXPECT_FALSE(ReadPropertyListFromPath(Path(name)).has_value()) << name;
  for (const QString& path : {QString(), u"/dev/zero"_s, list + QChar(0), list + QChar(0xD800)})
    EXPECT_FALSE(ReadPropertyListFromPath(path).has_value()) << path.toStdString();
  QUrl elsewhere = QUrl::fromLocalFile(list);
  elsewhere.setHost(u"elsewhere.example"_s);
  for (const QUrl& url : {QUrl(), QUrl(u"http://localhost/x"_s), elsewhere})
    EXPECT_FALSE(ReadPropertyListFromURL(url).has_value()) << url.toString().toStdString();
}

TEST_F(PropertyListFiles, TellsWhyNothingWasWritten) {
  const QUrl kept = FileUrl(Path("kept"));
  ASSERT_EQ(WritePropertyListToURL(kOld, kept, true), 0);
  MakePipe("pipe");
  const std::tuple<const char*, QVariant, QUrl, bool, std::int32_t> kRows[] = {
      {"a value that is none", QVariant(), kept, true, -1},
      {"the same through a temporary file", QVariant(), kept, false, -1},
      {"no URL", kNew, QUrl(), true, -1},
      {"a URL of the network", kNew, QUrl(u"http://localhost/x"_s), true, -1},
      {"a missing folder", kNew, FileUrl(Path("no/file")), true, kUrlNotFound},
      {"a missing folder, temporary", kNew, FileUrl(Path("no/file")), false, -1},
      {"a pipe", kNew, FileUrl(Path("pipe")), true, kUrlUnknownError},
      {"a folder", kNew, FileUrl(folder.path()), true, kUrlUnknownError},
      {"a folder, temporary", kNew, FileUrl(folder.path()), false, kFileNameExists},
  };
  for (const auto& [behaviour, value, target, inPlace, status] : kRows)
    EXPECT_EQ(WritePropertyListToURL(value, target, inPlace), status) << behaviour;
  ExpectFile(kept.toLocalFile(), kOld);
  ASSERT_EQ(::unlink((folder.path() + u".tmp"_s).toUtf8().constData()), 0);

  // A failed temporary file leaves no target: the name has room for it, not for the extension.
  const QString path = Path(QString(252, QChar(u'a')));
  ASSERT_EQ(WritePropertyListToPath(kOld, path, true), 0);
  EXPECT_EQ(WritePropertyListToPath(kNew, path, false), -1);
  EXPECT_FALSE(QFile::exists(path));
}

}  // namespace
}  // namespace vardell
