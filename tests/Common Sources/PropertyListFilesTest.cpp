#include "Common Sources/PropertyListFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include "Common Sources/Caps.h"
#include "Common Sources/FileSystem.h"
#include "Common Sources/PropertyList.h"

namespace vardell {
namespace {

const QVariantMap kOld{{QStringLiteral("old"), true}};
const QVariantMap kNew{{QStringLiteral("new"), qlonglong(1)}};

class PropertyListFiles : public ::testing::Test {
 protected:
  void SetUp() override { qputenv("VARDELL_TEST_ROOT", folder.path().toUtf8()); }
  void TearDown() override { qunsetenv("VARDELL_TEST_ROOT"); }

  QString Path(const QString& name) const { return folder.filePath(name); }
  void Put(const QString& name, const QByteArray& bytes) {
    QFile file(Path(name));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_EQ(file.write(bytes), bytes.size());
  }
  void PutList(const QString& name, const QVariant& value) {
    Put(name, WritePropertyListXml(value).value());
  }
  void ExpectFile(const QString& name, const QVariant& value) {
    const auto seen = ReadPropertyListFromPath(Path(name));
    ASSERT_TRUE(seen.has_value()) << name.toStdString();
    EXPECT_EQ(*seen, value);
  }
  bool Exists(const QString& name) const { return QFileInfo::exists(Path(name)); }

  QTemporaryDir folder;
};

TEST_F(PropertyListFiles, WritesAndReadsUnderNamesThatUrlsQuote) {
  for (const char* name :
       {"plain.plist", "a b.plist", "50%25.plist", "what?#.plist", "Z\xC3\xBC"}) {
    for (const bool inPlace : {true, false}) {
      SCOPED_TRACE(name);
      const QString file = QString::fromUtf8(name);
      EXPECT_EQ(WritePropertyListToPath(kOld, Path(file), inPlace), 0);
      ExpectFile(file, kOld);
      EXPECT_EQ(WritePropertyListToURL(kNew, QUrl::fromLocalFile(Path(file)), inPlace), 0);
      ExpectFile(file, kNew);
      EXPECT_TRUE(QFile::exists(Path(file)));
      EXPECT_FALSE(Exists(file + QStringLiteral(".tmp")));
      ASSERT_TRUE(QFile::remove(Path(file)));
    }
  }
}

TEST_F(PropertyListFiles, AShorterListLeavesNothingOfTheLongerOne) {
  PutList(QStringLiteral("a"), QVariantList(100, QStringLiteral("long")));
  EXPECT_EQ(WritePropertyListToPath(kNew, Path(QStringLiteral("a")), true), 0);
  ExpectFile(QStringLiteral("a"), kNew);
}

TEST_F(PropertyListFiles, SetsOneKeyOfADictionary) {
  const QString file = QStringLiteral("settings.plist");
  const QString key = QStringLiteral("new");
  const struct {
    const char* behaviour;
    QByteArray before;
    QVariantMap after;
  } kRows[] = {
      {"beside another one",
       *WritePropertyListXml(kOld),
       {{QStringLiteral("old"), true}, {key, qlonglong(1)}}},
      {"in its place", *WritePropertyListXml(QVariantMap{{key, false}}), kNew},
      {"over unreadable text", "not a property list", kNew},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.behaviour);
    Put(file, row.before);
    EXPECT_TRUE(SetPropertyListFileValue(Path(file), key, qlonglong(1)));
    ExpectFile(file, row.after);
  }
  EXPECT_TRUE(SetPropertyListFileValue(Path(QStringLiteral("fresh")), key, qlonglong(1)));
  ExpectFile(QStringLiteral("fresh"), kNew);
}

TEST_F(PropertyListFiles, KnowsItsPlaces) {
  const QUrl support = CopySupportFolderURL();
  EXPECT_EQ(support.toLocalFile(), Path(QStringLiteral("Library/Application Support/Vardell/")));
  EXPECT_TRUE(Exists(QStringLiteral("Library/Application Support")));
  EXPECT_FALSE(Exists(QStringLiteral("Library/Application Support/Vardell")));
  EXPECT_EQ(QString::fromUtf8(CopyMessagesFilePath().get()),
            Path(QStringLiteral("Library/Application Support/Vardell/messagesFile")));

  const QString settings = QStringLiteral("Library/Application Support/Vardell 5");
  EXPECT_FALSE(SetGlobalSettingsValue(QStringLiteral("new"), qlonglong(1)));
  ASSERT_TRUE(QDir(folder.path()).mkpath(settings));
  EXPECT_TRUE(SetGlobalSettingsValue(QStringLiteral("new"), qlonglong(1)));
  ExpectFile(settings + QStringLiteral("/com.brenwick.vardell5.plist"), kNew);
}

TEST_F(PropertyListFiles, TakesTheNameOfAUrl) {
  const QString longest(254, QChar(u'a'));
  const struct {
    const char* behaviour;
    QUrl url;
    std::int32_t status;
    QString name;
  } kRows[] = {
      {"a file", QUrl(QStringLiteral("file:///a/b%20c.plist")), 0, QStringLiteral("b c.plist")},
      {"a folder", QUrl(QStringLiteral("file:///a/b/")), 0, QStringLiteral("b")},
      {"254 units", FileUrl(u'/' + longest), 0, longest},
      {"255 units", FileUrl(u'/' + longest + u'a'), -108, {}},
      {"nothing", QUrl(), -1, {}},
      {"the root", QUrl(QStringLiteral("file:///")), -1, {}},
  };
  for (const auto& row : kRows) {
    QString name = QStringLiteral("before");
    EXPECT_EQ(GetFileNameFromURL(row.url, &name), row.status) << row.behaviour;
    EXPECT_EQ(name, row.name) << row.behaviour;
  }
}

// ---- What fails ----

TEST_F(PropertyListFiles, ReadsNothingFromWhatIsNoFile) {
  Put(QStringLiteral("text"), "hello");
  Put(QStringLiteral("empty"), "");
  Put(QStringLiteral("huge"), "");
  ASSERT_TRUE(QFile::resize(Path(QStringLiteral("huge")), qint64(1) << 40));
  ASSERT_EQ(::mkfifo(Path(QStringLiteral("pipe")).toUtf8().constData(), 0600), 0);
  PutList(QStringLiteral("list"), kOld);
  for (const char* name : {"text", "empty", "huge", "pipe", "missing", ".", "text/x"}) {
    EXPECT_FALSE(ReadPropertyListFromPath(Path(QString::fromUtf8(name))).has_value()) << name;
  }
  EXPECT_FALSE(ReadPropertyListFromPath(QStringLiteral("/dev/zero")).has_value());
  EXPECT_FALSE(ReadPropertyListFromPath(QString()).has_value());
  EXPECT_FALSE(ReadPropertyListFromPath(Path(QStringLiteral("list")) + QChar(0)).has_value());
  EXPECT_FALSE(ReadPropertyListFromPath(Path(QStringLiteral("list")) + QChar(0xD800)).has_value());
  EXPECT_FALSE(ReadPropertyListFromURL(QUrl()).has_value());
  EXPECT_FALSE(ReadPropertyListFromURL(QUrl(QStringLiteral("http://localhost/x"))).has_value());
  QUrl elsewhere = QUrl::fromLocalFile(Path(QStringLiteral("list")));
  elsewhere.setHost(QStringLiteral("elsewhere.example"));
  EXPECT_FALSE(ReadPropertyListFromURL(elsewhere).has_value());
}

TEST_F(PropertyListFiles, TellsWhyNothingWasWritten) {
  PutList(QStringLiteral("kept"), kOld);
  ASSERT_EQ(::mkfifo(Path(QStringLiteral("pipe")).toUtf8().constData(), 0600), 0);
  const struct {
    const char* behaviour;
    QVariant value;
    QUrl target;
    bool inPlace;
    std::int32_t status;
  } kRows[] = {
      {"a value that is none", QVariant(), FileUrl(Path(QStringLiteral("kept"))), true, -1},
      {"the same through a temporary file", QVariant(), FileUrl(Path(QStringLiteral("kept"))),
       false, -1},
      {"no URL", kNew, QUrl(), true, -1},
      {"a URL of the network", kNew, QUrl(QStringLiteral("http://localhost/x")), true, -1},
      {"a missing folder", kNew, FileUrl(Path(QStringLiteral("no/file"))), true, kUrlNotFound},
      {"a missing folder, temporary", kNew, FileUrl(Path(QStringLiteral("no/file"))), false, -1},
      {"a pipe", kNew, FileUrl(Path(QStringLiteral("pipe"))), true, kUrlUnknownError},
      {"a folder", kNew, FileUrl(folder.path()), true, kUrlUnknownError},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(WritePropertyListToURL(row.value, row.target, row.inPlace), row.status)
        << row.behaviour;
  }
  ExpectFile(QStringLiteral("kept"), kOld);
}

TEST_F(PropertyListFiles, AFailedTemporaryFileLeavesNoTarget) {
  // The name has room for the target, not for the extension.
  const QString file(252, QChar(u'a'));
  PutList(file, kOld);
  EXPECT_EQ(WritePropertyListToPath(kNew, Path(file), false), -1);
  EXPECT_FALSE(Exists(file));
}

TEST_F(PropertyListFiles, AFolderInTheTargetsPlaceStays) {
  ASSERT_TRUE(QDir(folder.path()).mkpath(QStringLiteral("target/inner")));
  EXPECT_EQ(WritePropertyListToPath(kNew, Path(QStringLiteral("target")), false), kFileNameExists);
  EXPECT_TRUE(Exists(QStringLiteral("target/inner")));
}

TEST_F(PropertyListFiles, SettingAKeyThatCannotBeWrittenKeepsTheFile) {
  PutList(QStringLiteral("kept"), kOld);
  EXPECT_FALSE(SetPropertyListFileValue(Path(QStringLiteral("kept")), QStringLiteral("k"), {}));
  ExpectFile(QStringLiteral("kept"), kOld);
}

}  // namespace
}  // namespace vardell
