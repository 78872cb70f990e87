#include "Common Sources/ShellHelpers.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <QFileInfo>
#include <QTemporaryDir>

#include "Common Sources/FileSystem.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

TEST(ShellHelpers, TakesThePidFromTheFirstLine) {
  EXPECT_EQ(PidFromProcessList("root       123  0.0 x\nroot 456 y\n"), 123);
  EXPECT_EQ(PidFromProcessList("root 12"), 12);
  for (const QByteArray& listing :
       {QByteArray(), QByteArray("root\n"), QByteArray("root abc\n"), QByteArray("root 0 x\n"),
        QByteArray("root -5 x\n"), QByteArray("root 4294967297 x\n"), QByteArray(4096, ' ')})
    EXPECT_EQ(PidFromProcessList(listing), -1) << listing.constData();
}

// Other processes of the machine must not matter: a `ps` of its own on the search path.
TEST(ShellHelpers, FindsAProcessByTheNameInItsCommandLine) {
  QTemporaryDir folder;
  const QByteArray path = qgetenv("PATH");
  qputenv("PATH", folder.path().toUtf8() + ":" + path);
  const QByteArray program = folder.filePath(u"ps"_s).toUtf8();
  const auto list = [&program](const QByteArray& listing) {
    (void)StoreFile(program,
                    "#!/bin/sh\n[ \"$*\" = auxww ] || exit 1\ncat <<'END'\n" + listing + "END\n");
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
  EXPECT_EQ(output(u"printf 'gr\u00FCn'"_s), "gr\xC3\xBCn");
  for (const QString& command :
       {QString(), u"echo "_s + QChar(0xD800), u"echo a"_s + QChar(0) + u"b"_s}) {
    EXPECT_EQ(output(command), "null");
    EXPECT_EQ(RunShellCommand(command), 0);
  }
  EXPECT_EQ(WEXITSTATUS(RunShellCommand(u"exit 3"_s)), 3);
}

TEST(ShellHelpers, TellsPortableNames) {
  for (const char* name : {"tim", "Tim.O_2-x", "_apt", "a.", "7"})
    EXPECT_TRUE(IsPortableName(QString::fromUtf8(name))) << name;
  for (const char* name : {"", "-rf", ".", "..", "a b", "a;b", "a$b", "a`b", "a/b", "a\nb", "a|b",
                           "a'b", "a\"b", "~a", "J\xC3\xB3zef", "a\\b"}) {
    EXPECT_FALSE(IsPortableName(QString::fromUtf8(name))) << name;
  }
  EXPECT_FALSE(IsPortableName(QString(256, QChar(u'a'))));
}

TEST(ShellHelpers, CopiesUTF8WithRoomToSpare) {
  std::size_t length = 99;
  EXPECT_EQ(CopyUTF8CString(QString(), &length), nullptr);
  const auto text = CopyUTF8CString(u"\u20AC\u20AC"_s, &length);
  EXPECT_EQ(length, 6u);
  EXPECT_EQ(std::string(text.get(), 10), std::string("\xE2\x82\xAC\xE2\x82\xAC\0\0\0\0", 10));
  EXPECT_STREQ(CopyUTF8CString(QString(QChar(0xD800)), &length).get(), "");
  EXPECT_EQ(length, 0u);
}

TEST(ShellHelpers, CreatesItemsOnce) {
  QTemporaryDir folder;
  for (const auto create : {CreateDirectoryAtURL, CreateFileAtURL}) {
    const bool isFolder = create == CreateDirectoryAtURL;
    const QString path = folder.filePath(isFolder ? u"a d"_s : u"a%f"_s);
    for (int times = 0; times < 2; ++times) {
      QString made;
      EXPECT_EQ(create(FileUrl(path), &made), 0);
      EXPECT_EQ(made, path);
      EXPECT_EQ(QFileInfo(path).isDir(), isFolder);
      EXPECT_EQ(QFileInfo(path).isFile(), !isFolder);
    }
    QString untouched = u"x"_s;
    for (const QUrl& bad : {FileUrl(folder.filePath(u"no/parent"_s)), QUrl(),
                            FileUrl(folder.filePath(QString(255, QChar(u'a')))), FileUrl(u"/"_s),
                            FileUrl(path + QChar(0)), QUrl(u"http://localhost/x"_s)}) {
      EXPECT_EQ(create(bad, &untouched), kCreateNotTried) << bad.toString().toStdString();
    }
    EXPECT_EQ(untouched, u"x"_s);
  }
  EXPECT_EQ(CreateFileAtURL(FileUrl(u"/proc/x"_s)), kFileNotFound);
}

TEST(ShellHelpers, MapsAFileAndNothingElse) {
  QTemporaryDir folder;
  const QString path = folder.filePath(u"file"_s);
  ASSERT_EQ(StoreFile(path.toUtf8(), "hello"), 0);
  void* address = nullptr;
  std::uint64_t length = 0;
  EXPECT_EQ(MapFileIntoMemory(path, 2, &address, &length, kReadWritePermission), 0);
  ASSERT_EQ(length, 2u);
  static_cast<char*>(address)[0] = 'j';
  ::munmap(address, length);
  EXPECT_EQ(MapFileIntoMemory(path, kWholeFile, &address, &length, 1), 0);
  EXPECT_EQ(std::string(static_cast<char*>(address), length), "jello");
  ::munmap(address, length);

  const QString empty = folder.filePath(u"empty"_s);
  const QString pipe = folder.filePath(u"pipe"_s);
  ASSERT_EQ(StoreFile(empty.toUtf8(), ""), 0);
  ASSERT_EQ(::mkfifo(pipe.toUtf8().constData(), 0600), 0);
  const std::pair<QString, std::int32_t> kRows[] = {
      {empty, 0},
      {folder.filePath(u"missing"_s), kMapNotOpened},
      {pipe, kMapNotOpened},
      {folder.path(), kMapNotOpened},
      {QString(), kFileNotFound},
      {QString(9000, QChar(u'a')), kFileBadName},
  };
  for (const auto& [bad, status] : kRows) {
    length = 7;
    EXPECT_EQ(MapFileIntoMemory(bad, kWholeFile, &address, &length, 1), status)
        << bad.toStdString();
    EXPECT_EQ(length, 0u);
  }
}

}  // namespace
}  // namespace vardell
