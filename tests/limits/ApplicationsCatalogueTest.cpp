#include "limits/ApplicationsCatalogue.h"

#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "platform/HotKeys.h"
#include "tests/support/FakeApplicationPreferences.h"
#include "tests/support/FakeInstalledApplications.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

ApplicationInfo Bundle(const char* path, const char* identifier, const char* name) {
  ApplicationInfo info;
  info.path = QString::fromUtf8(path);
  info.isBundle = true;
  if (identifier) info.identifier = QString::fromUtf8(identifier);
  info.displayName = QString::fromUtf8(name);
  return info;
}

ApplicationInfo Bare(const char* path, std::uint32_t creator, const char* name) {
  ApplicationInfo info = Bundle(path, nullptr, name);
  info.isBundle = false;
  info.creatorCode = creator;
  return info;
}

QVariantMap Row(const char* identifier, const QVariant& name) {
  return {{u"URL"_s, u"/A/"_s + QString::fromUtf8(identifier)},
          {u"Name"_s, name},
          {u"Identifier"_s, QString::fromUtf8(identifier)}};
}

class CatalogueTest : public testing::Test {
 protected:
  CatalogueTest() {
    installed_.folders = {u"/A"_s, u"/B"_s};
    installed_.Add(Bundle("/A/zoo", "org.zoo", "zoo"));
  }
  // After the computer: "identifier=name" in the stored order.
  QString Stored() {
    QStringList rows;
    const QVariant stored = preferences_.values.value(u"Applications"_s);
    for (const QVariant& row : stored.toList()) {
      const QVariantMap map = row.toMap();
      rows.push_back(map[u"Identifier"_s].toString() + u'=' + map[u"Name"_s].toString());
    }
    EXPECT_EQ(rows.value(0), u"com.apple.loginwindow=family"_s);
    return rows.mid(1).join(u' ');
  }
  void Store(const QVariant& value) { preferences_.values.insert(u"Applications"_s, value); }
  void Build() { BuildApplicationsCatalogue(installed_, preferences_); }
  std::int32_t Add(const char* path) {
    return AddApplicationToCatalogue(installed_, preferences_, QString::fromUtf8(path));
  }

  FakeInstalledApplications installed_;
  FakeApplicationPreferences preferences_;
};

TEST_F(CatalogueTest, HasTheComputerThenTheRestByNameAndIsStored) {
  installed_.Add(Bundle("/A/b", "org.b", "Émile"));
  installed_.Add(Bundle("/A/c", "org.c", "apple"));
  installed_.Add(Bundle("/A/d", "org.d", "Äpfel"));
  installed_.Add(Bundle("/A/e", "org.e", "Banana"));
  installed_.Add(Bundle("/A/f", "org.f", "äpfel 2"));
  EXPECT_FALSE(HasApplicationsCatalogue(preferences_));
  Build();
  EXPECT_EQ(Stored(),
            u"org.c=apple org.e=Banana org.zoo=zoo org.d=Äpfel org.f=äpfel 2 org.b=Émile"_s);
  EXPECT_TRUE(preferences_.isStored);
  const QVariantList rows = CopyApplicationsCatalogue(installed_, preferences_);
  const QVariantMap computer{{u"URL"_s, u"/System/Library/CoreServices/Finder.app"_s},
                             {u"Name"_s, u"family"_s},
                             {u"Identifier"_s, u"com.apple.loginwindow"_s}};
  EXPECT_EQ(rows[0].toMap(), computer);
  EXPECT_EQ(rows[1].toMap().value(u"URL"_s), u"/A/c"_s);
  EXPECT_EQ(rows[1].toMap().size(), 3);
}

TEST_F(CatalogueTest, HasWhatLiesInTheFoldersOrDirectlyInsideEachOnce) {
  for (const char* folder : {"/A/sub", "/A/sub/deep", "/A/zoo/inner"})
    installed_.AddFolder(QString::fromUtf8(folder));
  installed_.Add(Bundle("/A/zoo/helper", "org.helper", "inside an application"));
  installed_.Add(Bundle("/A/sub/one", "org.one", "one"));
  installed_.Add(Bundle("/A/sub/deep/two", "org.two", "two levels down"));
  installed_.Add(Bundle("/B/ZOO", "ORG.zoo", "the same in a later folder"));
  installed_.Add(Bundle("/B/none", nullptr, "a bundle without an identifier"));
  installed_.Add(Bundle("/B/empty", "", "a bundle with an empty one"));
  installed_.Add(Bundle("/B/login", "com.apple.LoginWindow", "a second computer"));
  installed_.Add(Bundle("/B/odd", "org.\x01", "what cannot be stored"));
  installed_.Add(Bundle("/B/name", "org.name", "bell\x07"));
  installed_.Add(Bundle("/B/unnamed", "org.unnamed", ""));
  installed_.Add(Bare("/B/game", FourCharCode("GAME"), "game"));
  Build();
  EXPECT_EQ(
      Stored(),
      u"org.name=bell\uFFFD com.brenwick.fakeID.GAME=game org.one=one org.unnamed=unnamed org.zoo=zoo"_s);
}

TEST_F(CatalogueTest, IsBuiltOnlyWhereNoArrayIsStored) {
  Store(QVariantList{});
  Build();
  EXPECT_EQ(installed_.scans, 0);
  EXPECT_TRUE(HasApplicationsCatalogue(preferences_));
  EXPECT_TRUE(CopyApplicationsCatalogue(installed_, preferences_).isEmpty());
  for (const QVariant& other : {QVariant(u"org.zoo"_s), QVariant(QVariantMap{})}) {
    Store(other);
    EXPECT_FALSE(HasApplicationsCatalogue(preferences_));
    EXPECT_EQ(CopyApplicationsCatalogue(installed_, preferences_).size(), 2);
    EXPECT_EQ(Stored(), u"org.zoo=zoo"_s);
  }
}

TEST_F(CatalogueTest, AddingKeepsTheOrderAndStoresWithoutSynchronising) {
  installed_.unlisted.insert(u"/opt/m"_s, Bundle("/opt/m", "org.M", "Mine"));
  installed_.unlisted.insert(u"/opt/g"_s, Bare("/opt/g", FourCharCode("ab  "), "ab"));
  Build();
  EXPECT_EQ(Add("/opt/m"), 0);
  EXPECT_FALSE(preferences_.isStored);
  EXPECT_EQ(Add("/opt/g"), 0);
  const QString all = u"com.brenwick.fakeID.ab  =ab org.M=Mine org.zoo=zoo"_s;
  EXPECT_EQ(Stored(), all);
  installed_.unlisted.insert(u"/opt/n"_s, Bundle("/opt/n", "ORG.m", "Another"));
  installed_.unlisted.insert(u"/opt/o"_s, Bundle("/opt/o", nullptr, "Nobody"));
  EXPECT_EQ(Add("/opt/n"), -2) << "in another letter case";
  EXPECT_EQ(Add("/A/zoo"), -2);
  EXPECT_EQ(Add("/opt/o"), -1) << "no identifier";
  EXPECT_EQ(Add("/no/such"), -1);
  EXPECT_EQ(Stored(), all);
}

TEST_F(CatalogueTest, AddingMakesAMissingCatalogueAndTakesAnEmptyOne) {
  installed_.unlisted.insert(u"/opt/m"_s, Bundle("/opt/m", "org.m", "m"));
  EXPECT_EQ(Add("/no/such"), -1);
  EXPECT_TRUE(preferences_.values.isEmpty());
  EXPECT_EQ(Add("/opt/m"), 0);
  EXPECT_EQ(Stored(), u"org.m=m org.zoo=zoo"_s);
  Store(QVariantList{});
  EXPECT_EQ(Add("/opt/m"), 0);
  EXPECT_EQ(Stored(), u"org.m=m"_s);
}

TEST_F(CatalogueTest, RebuildingTakesNewNamesAndKeepsWhatWasAddedAndStillExists) {
  for (const char* path : {"/opt/stays", "/opt/goes"})
    installed_.unlisted.insert(QString::fromUtf8(path), Bundle(path, path + 5, path + 5));
  EXPECT_EQ(Add("/opt/stays"), 0);
  EXPECT_EQ(Add("/opt/goes"), 0);
  installed_.unlisted.remove(u"/opt/goes"_s);
  installed_.items.clear();
  installed_.Add(Bundle("/A/new", "org.new", "new"));
  RebuildApplicationsCatalogue(installed_, preferences_);
  EXPECT_EQ(Stored(), u"org.new=new stays=stays"_s);
  EXPECT_TRUE(preferences_.isStored);
  installed_.Add(Bundle("/A/stays", "Stays", "found by the scan now"));
  RebuildApplicationsCatalogue(installed_, preferences_);
  EXPECT_EQ(Stored(), u"Stays=found by the scan now org.new=new"_s);
}

TEST_F(CatalogueTest, RowsWithoutANameStandLastWhateverTheOrder) {
  installed_.unlisted.insert(u"/opt/m"_s, Bundle("/opt/m", "org.m", "m"));
  QVariantList rows;
  for (int i = 0; i < 300; ++i) {
    const QString name = QString::number((i * 7919) % 1000);
    const QByteArray id = QByteArray::number(i);
    rows.push_back(i % 3 == 0 ? QVariant(Row(id, QVariant()))
                              : QVariant(Row(id, i % 3 == 1 ? QVariant(name) : QVariant(i))));
  }
  rows.push_back(QVariant(17));
  std::shuffle(rows.begin(), rows.end(), std::mt19937(4));
  rows.push_front(Row("computer", u"old"_s));
  Store(rows);
  EXPECT_EQ(Add("/opt/m"), 0);
  const QVariantList sorted = CopyApplicationsCatalogue(installed_, preferences_);
  ASSERT_EQ(sorted.size(), 303);
  const auto nameAt = [&](int i) { return sorted[i].toMap().value(u"Name"_s); };
  EXPECT_EQ(nameAt(0), u"family"_s);
  for (int i = 2; i < 102; ++i)
    EXPECT_LE(CompareCatalogueNames(sorted[i - 1].toMap(), sorted[i].toMap()), 0) << i;
  EXPECT_EQ(nameAt(101), u"m"_s);
  for (int i = 102; i < 303; ++i) EXPECT_NE(nameAt(i).typeId(), QMetaType::QString) << i;
}

TEST(CompareCatalogueNamesTest, FoldsCaseAndTakesAMissingNameAsEqual) {
  const std::tuple<const char*, QVariant, QVariant, int> rows[] = {
      {"letter case", u"CHESS"_s, u"chess"_s, 0},
      {"beyond ASCII", u"ΣΊΣΥΦΟΣ"_s, u"σίσυφος"_s, 0},
      {"less", u"a"_s, u"B"_s, -1},
      {"more", u"b"_s, u"A"_s, 1},
      {"the longer one", u"Aa"_s, u"a"_s, 1},
      {"one has none", QVariant(), u"a"_s, 0},
      {"no text", u"a"_s, 17, 0},
  };
  for (const auto& [what, one, other, sign] : rows) {
    const int found = CompareCatalogueNames(Row("one", one), Row("other", other));
    EXPECT_EQ((found > 0) - (found < 0), sign) << what;
  }
}

TEST(CatalogueContainsIdentifierTest, ComparesWholeIdentifiersInAnyCase) {
  const QVariantList rows{17, Row("org.Zoo", u"zoo"_s), QVariantMap{}};
  EXPECT_TRUE(CatalogueContainsIdentifier(rows, u"ORG.zOO"_s));
  for (const char* other : {"org.zo", "org.zoo2", "zoo", ""})
    EXPECT_FALSE(CatalogueContainsIdentifier(rows, QString::fromUtf8(other))) << other;
}

}  // namespace
}  // namespace vardell
