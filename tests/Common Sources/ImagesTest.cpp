#include "Common Sources/Images.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "Common Sources/Caps.h"
#include "Common Sources/FileSystem.h"
#include "tests/support/FakeDrag.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

// What an operation left behind: `kKept` is the image that was there before.
constexpr char kNone[] = "none";
constexpr char kKept[] = "#0000ff";
constexpr char kRed[] = "#ff0000";
constexpr char kGreen[] = "#00ff00";

QImage Filled(const char* colour, QSize size = {2, 2},
              QImage::Format format = QImage::Format_RGB32) {
  QImage image(size, format);
  image.fill(QColor(QLatin1String(colour)));
  return image;
}

std::string Shown(const QImage& image) {
  return image.isNull() ? kNone : image.pixelColor(0, 0).name().toStdString();
}

QByteArray Encoded(const QImage& image, const char* format = "PNG") {
  QBuffer buffer;
  EXPECT_TRUE(image.save(&buffer, format)) << format;
  return buffer.data();
}

// What loading by a name answers, and the image that it leaves.
struct Row {
  const char* name;
  std::int32_t status;
  const char* shown;
};

class ImagesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Put("red.png", Encoded(Filled(kRed)));
    Put("green.png", Encoded(Filled(kGreen)));
    Put("caf\xC3\xA9 1.png", Encoded(Filled(kGreen)));
    Put("words.png", "no picture");
  }
  QString Path(const char* name) const { return folder.filePath(QString::fromUtf8(name)); }
  void Put(const char* name, const QByteArray& bytes) {
    QFile file(Path(name));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
  }
  QByteArray Url(const char* name) const { return "file://" + folder.path().toUtf8() + "/" + name; }

  QTemporaryDir folder;
};

TEST_F(ImagesTest, AFileIsAPngWithinBoundsOrANullImage) {
  const QByteArray red = Encoded(Filled(kRed));
  const QByteArray enormous = QByteArray::fromHex(
      "89504e470d0a1a0a0000000d494844520000ea600000ea60"
      "08020000000fb0e215");
  const std::tuple<const char*, QByteArray, const char*> kRows[] = {
      {"a PNG", red, kRed},
      {"bytes after its end", red + "more", kRed},
      {"the largest file", red + QByteArray(qsizetype{kMaxPictureBytes} - red.size(), 0), kRed},
      {"one byte more", red + QByteArray(qsizetype{kMaxPictureBytes} - red.size() + 1, 0), kNone},
      {"JPEG", Encoded(Filled(kRed), "JPG"), kNone},
      {"BMP", Encoded(Filled(kRed), "BMP"), kNone},
      {"empty", {}, kNone},
      {"cut within its header", red.left(20), kNone},
      {"cut within its pixels", red.chopped(20), kNone},
      {"60,000 by 60,000 pixels", enormous + red.mid(33), kNone},
      {"64 MB", Encoded(Filled(kRed, {4096, 4096}, QImage::Format_Indexed8)), "#000000"},
      {"a row more", Encoded(Filled(kRed, {4096, 4097}, QImage::Format_Indexed8)), kNone},
      {"64 MB of wide pixels", Encoded(Filled(kRed, {4096, 2049}, QImage::Format_RGBX64)), kNone},
  };
  for (const auto& [name, bytes, shown] : kRows) {
    Put("picture", bytes);
    QImage image = Filled(kKept);
    EXPECT_EQ(LoadImageFromFSRef(Path("picture"), &image), 0) << name;
    EXPECT_EQ(Shown(image), shown) << name;
  }
}

TEST_F(ImagesTest, WhatIsNoFileIsRefusedWithoutWaiting) {
  ASSERT_EQ(::mkfifo(Path("pipe").toUtf8().constData(), 0600), 0);
  ASSERT_TRUE(QFile::link(u"/dev/zero"_s, Path("device")));
  ASSERT_TRUE(QFile::link(Path("red.png"), Path("link")));
  ASSERT_TRUE(QFile::link(Path("nothing"), Path("dangling")));
  ASSERT_TRUE(QDir(folder.path()).mkdir(u"inside"_s));
  const QByteArray base = Url("");
  const Row kRows[] = {
      {"red.png", 0, kRed},
      {"link", 0, kRed},
      {"caf%C3%A9%201.png", 0, kGreen},
      {"pipe", 0, kNone},
      {"device", 0, kNone},
      {"inside", 0, kNone},
      {"words.png", 0, kNone},
      {"nothing", kFileNotFound, kKept},
      {"dangling", kFileNotFound, kKept},
      {"red.png%00", kFileNotFound, kKept},
      {"red.png/", kFileNotFound, kKept},
  };
  const auto expect = [](const QUrl& url, std::int32_t status, const char* shown) {
    QImage image = Filled(kKept);
    EXPECT_EQ(LoadImageFromURL(url, &image), status) << url.toString().toStdString();
    EXPECT_EQ(Shown(image), shown) << url.toString().toStdString();
  };
  for (const Row& row : kRows) expect(QUrl::fromEncoded(base + row.name), row.status, row.shown);
  expect(QUrl::fromEncoded("file://elsewhere" + Path("red.png").toUtf8()), kFileNotFound, kKept);
  expect(QUrl::fromEncoded("http://localhost" + Path("red.png").toUtf8()), kFileNotFound, kKept);
  expect(QUrl(u"qrc:/images/red.png"_s), kFileNotFound, kKept);
  expect({}, kFileNotFound, kKept);

  QImage image = Filled(kKept);
  EXPECT_EQ(LoadImageFromFSRef(Path("nothing"), &image), 0);
  EXPECT_EQ(Shown(image), kNone);
  for (const QString& path : {QString(), QString(QChar(0xd800))}) {
    image = Filled(kKept);
    EXPECT_EQ(LoadImageFromFSRef(path, &image), 0);
    EXPECT_EQ(Shown(image), kKept) << "no file's name";
  }
}

TEST_F(ImagesTest, AFileThatGivesNoImageIsReadOnceMore) {
  for (const auto& [name, reads] : {std::pair{"red.png", 1}, std::pair{"words.png", 2}}) {
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    // Closing as well: equal events in a row would become one.
    ::inotify_add_watch(watch, Path(name).toUtf8().constData(), IN_OPEN | IN_CLOSE_NOWRITE);
    QImage image;
    LoadImageFromFSRef(Path(name), &image);
    alignas(inotify_event) char events[1024];
    const ssize_t size = ::read(watch, events, sizeof events);
    ::close(watch);
    EXPECT_EQ(size, reads * 2 * ssize_t{sizeof(inotify_event)}) << name;
  }
}

TEST_F(ImagesTest, ResourcesAreKnownByTheirNames) {
  constexpr Row kRows[] = {
      {"red.png", 0, kRed},
      {"words.png", 0, kNone},
      {"eye.tiff", 0, kNone},
      {"red", kFileNotFound, kKept},
      {"", kFileNotFound, kKept},
      {".", kFileNotFound, kKept},
      {"folder", kFileNotFound, kKept},
      {"folder/red.png", kFileNotFound, kKept},
      {"../elsewhere/red.png", kFileNotFound, kKept},
  };
  for (const Row& row : kRows) {
    QImage image = Filled(kKept);
    EXPECT_EQ(LoadImageFromResource(QLatin1String(row.name), &image), row.status) << row.name;
    EXPECT_EQ(Shown(image), row.shown) << row.name;
  }
  EXPECT_EQ(Shown(CopyBundlePNGImage(u"red"_s)), kRed);
  for (const char* name : {"red.png", "words", "eye", "", "folder/red", "../elsewhere/red"})
    EXPECT_TRUE(CopyBundlePNGImage(QLatin1String(name)).isNull()) << name;
}

using Flavours = QVector<QPair<QString, QByteArray>>;

QPair<QString, QByteArray> FileURL(const QByteArray& url) {
  return {u"public.file-url"_s, url};
}

FakeDrag::Flavor Record(const char* fileSpec, qsizetype bytes = kHFSFlavorBytes) {
  QByteArray record(bytes, 0);
  record.replace(kHFSFlavorFileSpec, qsizetype(std::strlen(fileSpec)), fileSpec);
  return {kFlavorTypeHFS, record};
}

FakeDrag::Flavor ClassicURL(const QByteArray& url) {
  return {kFlavorTypeFileURL, url};
}

TEST_F(ImagesTest, ADropIsTakenFromTheFlavoursThatItHas) {
  const QPair<QString, QByteArray> text{u"public.utf8-plain-text"_s, "words"};
  const QPair<QString, QByteArray> picture{u"public.png"_s, Encoded(Filled(kGreen))};
  const FakeDrag::Flavor other{0x54455854, "words"};  // 'TEXT'
  const FakeDrag::Flavor redRecord = Record("red");
  const FakeDrag::Flavor greenURL = ClassicURL(Url("green.png"));
  const QByteArray longURL = "file://" + QByteArray(qsizetype{kMaxDroppedUrlBytes} - 6, '/');
  FakeDrag::Flavor shrunkRecord = Record("red", 79);
  shrunkRecord.missing = 1;
  FakeDrag::Flavor shrunkURL = ClassicURL(Url("green.pn"));
  shrunkURL.missing = 1;

  const struct {
    const char* name;
    Flavours pasteboard;
    std::vector<std::vector<FakeDrag::Flavor>> items;
    std::int32_t status;
    const char* shown;
  } kRows[] = {
      {"a file before what is classic", {FileURL(Url("red.png"))}, {{greenURL}}, 0, kRed},
      {"a file comes before data", {picture, FileURL(Url("red.png"))}, {}, 0, kRed},
      {"escapes are UTF-8", {FileURL(Url("caf%C3%A9%201.png"))}, {}, 0, kGreen},
      {"letters are MacRoman", {FileURL(Url("caf\x8E%201.png"))}, {}, 0, kGreen},
      {"and not UTF-8", {FileURL(Url("caf\xC3\xA9%201.png"))}, {}, -43, kKept},
      {"a file that is no PNG", {FileURL(Url("words.png"))}, {{greenURL}}, 0, kNone},
      {"a file that is gone", {FileURL(Url("gone.png"))}, {{greenURL}}, -43, kKept},
      {"another machine's", {FileURL("file://elsewhere/red.png")}, {{greenURL}}, -43, kKept},
      {"no URL", {FileURL(Url("caf 1.png"))}, {{greenURL}}, -50, kKept},
      {"an empty one", {FileURL({})}, {{greenURL}}, -50, kKept},
      {"one too long", {FileURL(longURL)}, {{greenURL}}, -50, kKept},
      {"a picture's data", {text, picture}, {}, -1, kNone},
      {"and a flavour that says nothing", {picture}, {{other}}, -1, kNone},
      {"and a record", {picture}, {{other, redRecord, other}}, 0, kRed},
      {"neither file nor picture", {text}, {{other}}, -50, kKept},
      {"nothing at all", {}, {}, -50, kKept},
      {"a record", {}, {{redRecord}}, 0, kRed},
      {"a record too short", {}, {{Record("red", 79)}}, -50, kKept},
      {"a record too long", {picture}, {{Record("red", 81)}}, -50, kNone},
      {"a record that has become shorter", {picture}, {{shrunkRecord}}, -50, kNone},
      {"a record of no file", {}, {{Record("gone")}}, -43, kKept},
      {"and a URL after it", {}, {{Record("gone"), greenURL}}, 0, kGreen},
      {"a URL", {}, {{greenURL}}, 0, kGreen},
      {"a URL in UTF-8", {}, {{ClassicURL(Url("caf\xC3\xA9%201.png"))}}, 0, kGreen},
      {"a URL not in UTF-8", {}, {{ClassicURL(Url("caf\x8E%201.png"))}}, -108, kKept},
      {"a URL cut within a letter", {}, {{ClassicURL(Url("caf\xC3"))}}, -108, kKept},
      {"a URL that has become shorter", {}, {{shrunkURL, redRecord}}, -43, kKept},
      {"an empty URL", {}, {{ClassicURL({})}}, -108, kKept},
      {"the longest URL", {}, {{ClassicURL(longURL.chopped(1)), redRecord}}, -43, kKept},
      {"one too long ends it", {}, {{ClassicURL(longURL), redRecord}}, -108, kKept},
      {"a file that is gone ends it", {}, {{ClassicURL(Url("gone")), redRecord}}, -43, kKept},
      {"a later flavour loads over", {}, {{redRecord, greenURL}}, 0, kGreen},
      {"a later item loads over", {}, {{greenURL}, {redRecord}}, 0, kRed},
      {"a later failure is the answer", {}, {{redRecord, ClassicURL({})}}, -108, kRed},
      {"and a later success", {}, {{ClassicURL({})}, {redRecord}}, 0, kRed},
      {"other flavours and items leave it", {}, {{ClassicURL({}), other}, {other}}, -108, kKept},
  };
  for (const auto& row : kRows) {
    FakeDrag drag;
    drag.pasteboard = row.pasteboard;
    drag.items = row.items;
    drag.files = {{"red", Path("red.png")}};
    QImage image = Filled(kKept);
    EXPECT_EQ(LoadImageFromDrag(drag, &image), row.status) << row.name;
    EXPECT_EQ(Shown(image), row.shown) << row.name;
  }
}

TEST_F(ImagesTest, ACallOfTheDragsThatFailsIsTheAnswer) {
  const auto load = [&](std::map<std::string, std::int32_t> failures,
                        std::vector<std::string>* calls) {
    FakeDrag drag;
    drag.pasteboard = {{u"public.tiff"_s, "II"}};
    drag.items = {{{0x54455854, "words"}}, {Record("red"), ClassicURL(Url("green.png"))}};
    drag.files = {{"red", Path("red.png")}};
    drag.failures = std::move(failures);
    QImage image;
    const std::int32_t status = LoadImageFromDrag(drag, &image);
    *calls = drag.calls;
    return status;
  };
  const std::vector<std::string> goesOn = {"CopyItemFlavorData public.file-url", "MakeFSRef"};
  std::vector<std::string> all;
  EXPECT_EQ(load({}, &all), 0);
  EXPECT_EQ(all.size(), 18u);
  for (const std::string& call : all) {
    std::vector<std::string> calls;
    const std::int32_t status = load({{call, -1999}}, &calls);
    if (std::find(goesOn.begin(), goesOn.end(), call) != goesOn.end()) {
      EXPECT_EQ(status, 0) << call;
      continue;
    }
    EXPECT_EQ(status, -1999) << call;
    EXPECT_EQ(calls.back(), call);
  }
}

}  // namespace
}  // namespace vardell
