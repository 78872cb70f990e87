#include "Common Sources/ShellHelpers.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include "Common Sources/FileSystem.h"

namespace vardell {
namespace {

TEST(ShellHelpers, TakesThePidFromTheFirstLine) {
  const struct {
    const char* behaviour;
    QByteArray listing;
    std::int32_t pid;
  } kRows[] = {
      {"the second column", "root       123  0.0 x\nroot 456 y\n", 123},
      {"nothing printed", "", -1},
      {"no blank", "root\n", -1},
      {"a word in the column", "root abc\n", -1},
      {"zero", "root 0 x\n", -1},
      {"a negative number", "root -5 x\n", -1},
      {"more than a pid can be", "root 4294967297 x\n", -1},
      {"cut off within the number", "root 12", 12},
      {"a full buffer of blanks", QByteArray(4096, ' '), -1},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(PidFromProcessList(row.listing), row.pid) << row.behaviour;
  }
}

// Other processes of the machine must not matter: a `ps` of its own on the search path.
TEST(ShellHelpers, FindsAProcessByTheNameInItsCommandLine) {
  QTemporaryDir folder;
  const QByteArray path = qgetenv("PATH");
  qputenv("PATH", folder.path().toUtf8() + ":" + path);
  const QByteArray program = folder.filePath(QStringLiteral("ps")).toUtf8();
  const auto list = [&program](const QByteArray& listing) {
    ASSERT_EQ(StoreFile(program, "#!/bin/sh\n[ \"$*\" = auxww ] || exit 1\ncat <<'END'\n" +
                                     listing + "END\n"),
              0);
    ASSERT_EQ(::chmod(program.constData(), 0700), 0);
  };
  list(
      "USER       PID %CPU COMMAND\n"
      "root         9  0.0 sh -c ps auxww | grep \"WindowServer\" | grep -v \"grep\"\n"
      "tim         10  0.0 /opt/Vardell Login Item --quiet\n"
      "tim         11  0.0 /opt/Vardell Login Item\n"
      "root        12  0.0 Vardell_3_Server\n"
      "root        13  0.0 vim WindowServer.txt\n");
  EXPECT_EQ(GetLoginItemPid(), 10);
  EXPECT_EQ(GetServerPid(), 12);
  EXPECT_EQ(GetWindowServerPid(), 13);

  list(QByteArray("root 14 ") + QByteArray(200000, 'x') + "WindowServer\n");
  EXPECT_EQ(GetWindowServerPid(), 14);
  EXPECT_EQ(GetLoginItemPid(), -1);
  EXPECT_EQ(GetServerPid(), -1);
  qputenv("PATH", path);
}

TEST(ShellHelpers, RunsCommands) {
  const auto output = [](const QString& command) {
    const CommandOutput stream = OpenCommandOutput(command);
    char text[64] = {};
    if (stream) (void)std::fread(text, 1, sizeof text - 1, stream.get());
    return std::string(stream ? text : "null");
  };
  EXPECT_EQ(output(QStringLiteral("printf 'gr\u00FCn'")), "gr\xC3\xBCn");
  EXPECT_EQ(output(QString()), "null");
  EXPECT_EQ(output(QStringLiteral("echo ") + QChar(0xD800)), "null");
  EXPECT_EQ(output(QStringLiteral("echo a") + QChar(0) + QStringLiteral("b")), "null");

  EXPECT_EQ(WEXITSTATUS(RunShellCommand(QStringLiteral("exit 3"))), 3);
  EXPECT_EQ(RunShellCommand(QString()), 0);
  EXPECT_EQ(RunShellCommand(QStringLiteral("exit 3;") + QChar(0xDC00)), 0);
}

TEST(ShellHelpers, TellsPortableNames) {
  for (const char* name : {"tim", "Tim.O_2-x", "_apt", "a.", "7"}) {
    EXPECT_TRUE(IsPortableName(QString::fromUtf8(name))) << name;
  }
  for (const char* name : {"", "-rf", ".", "..", "a b", "a;b", "a$b", "a`b", "a/b", "a\nb", "a|b",
                           "a&b", "a'b", "a\"b", "a*", "~a", "J\xC3\xB3zef", "a\\b", "a(b"}) {
    EXPECT_FALSE(IsPortableName(QString::fromUtf8(name))) << name;
  }
  EXPECT_FALSE(IsPortableName(QString(256, QChar(u'a'))));
}

TEST(ShellHelpers, CopiesUTF8WithRoomToSpare) {
  std::size_t length = 99;
  EXPECT_EQ(CopyUTF8CString(QString(), &length), nullptr);

  const auto text = CopyUTF8CString(QStringLiteral("\u20AC\u20AC"), &length);
  EXPECT_EQ(length, 6u);
  EXPECT_EQ(std::string(text.get(), 10), std::string("\xE2\x82\xAC\xE2\x82\xAC\0\0\0\0", 10));

  const auto lone = CopyUTF8CString(QString(QChar(0xD800)), &length);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(std::string(lone.get(), 7), std::string(7, '\0'));
  EXPECT_STREQ(CopyUTF8CString(QLatin1String("")).get(), "");
}

class ShellHelperFiles : public ::testing::Test {
 protected:
  QString Path(const QString& name) const { return folder.filePath(name); }
  QTemporaryDir folder;
};

TEST_F(ShellHelperFiles, CreatesItemsOnce) {
  const struct {
    const char* behaviour;
    std::int32_t (*create)(const QUrl&, QString*);
    bool isFolder;
  } kRows[] = {{"a folder", CreateDirectoryAtURL, true}, {"a file", CreateFileAtURL, false}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.behaviour);
    const QString path = Path(row.isFolder ? QStringLiteral("a folder") : QStringLiteral("a%file"));
    for (int times = 0; times < 2; ++times) {
      QString made;
      EXPECT_EQ(row.create(FileUrl(path), &made), 0);
      EXPECT_EQ(made, path);
      EXPECT_EQ(QFileInfo(path).isDir(), row.isFolder);
      EXPECT_EQ(QFileInfo(path).isFile(), !row.isFolder);
    }
    QString untouched = QStringLiteral("x");
    const QString longName(255, QChar(u'a'));
    for (const QString& bad : {Path(QStringLiteral("no/parent")), Path(longName), QString(),
                               QStringLiteral("/"), path + QChar(0)}) {
      EXPECT_EQ(row.create(FileUrl(bad), &untouched), kCreateNotTried) << bad.toStdString();
    }
    EXPECT_EQ(row.create(QUrl(QStringLiteral("http://localhost/x")), &untouched), kCreateNotTried);
    EXPECT_EQ(untouched, QStringLiteral("x"));
  }
  EXPECT_EQ(CreateFileAtURL(FileUrl(QStringLiteral("/proc/x"))), kFileNotFound);
}

TEST_F(ShellHelperFiles, MapsAFile) {
  const QString path = Path(QStringLiteral("file"));
  {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("hello");
  }
  void* address = nullptr;
  std::uint64_t length = 0;
  EXPECT_EQ(MapFileIntoMemory(path, kWholeFile, &address, &length, 1), 0);
  ASSERT_EQ(length, 5u);
  EXPECT_EQ(std::string(static_cast<char*>(address), 5), "hello");
  ::munmap(address, length);

  EXPECT_EQ(MapFileIntoMemory(path, 2, &address, &length, kReadWritePermission), 0);
  ASSERT_EQ(length, 2u);
  static_cast<char*>(address)[0] = 'j';
  ::munmap(address, length);
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::ReadOnly));
  EXPECT_EQ(file.readAll(), QByteArray("jello"));
}

TEST_F(ShellHelperFiles, MapsNothingOfWhatIsNoFile) {
  ASSERT_EQ(CreateFileAtURL(FileUrl(Path(QStringLiteral("empty")))), 0);
  ASSERT_EQ(::mkfifo(Path(QStringLiteral("pipe")).toUtf8().constData(), 0600), 0);
  const struct {
    const char* behaviour;
    QString path;
    std::int32_t status;
  } kRows[] = {
      {"an empty file", Path(QStringLiteral("empty")), 0},
      {"a missing file", Path(QStringLiteral("missing")), kMapNotOpened},
      {"a pipe", Path(QStringLiteral("pipe")), kMapNotOpened},
      {"a folder", folder.path(), kMapNotOpened},
      {"no path", QString(), kFileNotFound},
      {"a path without end", QString(9000, QChar(u'a')), kFileBadName},
  };
  for (const auto& row : kRows) {
    void* address = &address;
    std::uint64_t length = 7;
    EXPECT_EQ(MapFileIntoMemory(row.path, kWholeFile, &address, &length, 1), row.status)
        << row.behaviour;
    EXPECT_EQ(length, 0u) << row.behaviour;
  }
}

}  // namespace
}  // namespace vardell
