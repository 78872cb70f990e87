#include "Common Sources/UserPicture.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QBuffer>
#include <QDir>
#include <QTemporaryDir>

#include "Common Sources/FileSystem.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

QByteArray Png(const QColor& colour) {
  QImage image(2, 2, QImage::Format_RGB32);
  image.fill(colour);
  QByteArray bytes;
  QBuffer buffer(&bytes);
  image.save(&buffer, "PNG");
  return bytes;
}

// A directory service on the search path that answers from files, and notes what it was asked.
class UserPicture : public ::testing::Test {
 protected:
  void SetUp() override {
    const passwd* entry = ::getpwuid(::getuid());
    ASSERT_NE(entry, nullptr);
    user = QString::fromUtf8(entry->pw_name);
    home = QString::fromUtf8(entry->pw_dir);
    qputenv("VARDELL_TEST_ROOT", folder.path().toUtf8());
    path = qgetenv("PATH");
    qputenv("PATH", folder.path().toUtf8() + ":" + path);
    Put(u"dscl"_s, "#!/bin/sh\ncd " + folder.path().toUtf8() +
                       "\necho \"$*\" >> asked\ncat \"answer-$4\" 2>/dev/null\n");
    ASSERT_EQ(::chmod(folder.filePath(u"dscl"_s).toUtf8().constData(), 0700), 0);
  }
  void TearDown() override {
    qputenv("PATH", path);
    qunsetenv("VARDELL_TEST_ROOT");
  }

  void Put(const QString& name, const QByteArray& bytes) {
    const QString file = folder.filePath(name);
    ASSERT_TRUE(QDir().mkpath(QFileInfo(file).path()));
    ASSERT_EQ(StoreFile(file.toUtf8(), bytes), 0);
  }
  void AnswerPhoto(const QByteArray& image) {
    Put(u"answer-JPEGPhoto"_s, "JPEGPhoto:\n " + image.toHex() + "\n");
  }
  void AnswerPicture(const QByteArray& text) { Put(u"answer-Picture"_s, text); }
  QByteArray Asked() const {
    return LoadFile(folder.filePath(u"asked"_s).toUtf8(), 4096).value_or("");
  }
  void ExpectColour(const QString& name, const QColor& colour) {
    const QImage image = CopyUserPicture(name);
    ASSERT_FALSE(image.isNull());
    EXPECT_EQ(image.pixelColor(0, 0), colour);
  }

  QTemporaryDir folder;
  QString user;
  QString home;
  QByteArray path;
};

TEST_F(UserPicture, EachSourceGivesWayToTheOneBefore) {
  EXPECT_TRUE(CopyUserPicture(u"tim-2"_s).isNull());
  EXPECT_EQ(Asked(), ". -read /Users/tim-2 JPEGPhoto\n. -read /Users/tim-2 Picture\n");
  Put(home.mid(1) + u"/.face"_s, Png(Qt::red));
  ExpectColour(user, Qt::red);
  Put(u"var/lib/AccountsService/icons/"_s + user, Png(Qt::green));
  ExpectColour(user, Qt::green);
  Put(u"pic ture.png"_s, Png(Qt::blue));
  AnswerPicture("Picture:  \r\n " + folder.path().toUtf8() + "/pic ture.png\n");
  ExpectColour(user, Qt::blue);
  AnswerPhoto(Png(Qt::yellow));
  ExpectColour(user, Qt::yellow);
}

TEST_F(UserPicture, ANameThatIsNotPortableNeverReachesTheShell) {
  const QString marker = folder.filePath(u"ran"_s);
  for (const char* name : {"x; touch RAN", "$(touch RAN)", "`touch RAN`", "x\ntouch RAN\n", "-x",
                           "J\xC3\xB3zef", "../x", "", "|touch RAN"}) {
    CopyUserPicture(QString::fromUtf8(name).replace(u"RAN"_s, marker));
    EXPECT_EQ(Asked(), "") << name;
    EXPECT_FALSE(QFile::exists(marker)) << name;
  }
  // Its icon is shown all the same.
  const QString name = QString::fromUtf8("J\xC3\xB3zef");
  Put(u"var/lib/AccountsService/icons/"_s + name, Png(Qt::green));
  Put(u"var/lib/AccountsService/secret"_s, Png(Qt::red));
  ExpectColour(name, Qt::green);
  EXPECT_TRUE(CopyUserPicture(u"../secret"_s).isNull());
}

TEST_F(UserPicture, WhatIsNoImageIsPassedOver) {
  Put(u"var/lib/AccountsService/icons/"_s + user, Png(Qt::green));
  AnswerPhoto("hello");
  for (const QByteArray& answer :
       {QByteArray(), QByteArray("\n"), QByteArray("Picture: /dev/zero\n"),
        QByteArray("No such key: Picture"), QByteArray("Picture: ") + QByteArray(4000, 'a')}) {
    AnswerPicture(answer);
    ExpectColour(user, Qt::green);
  }
}

}  // namespace
}  // namespace vardell
