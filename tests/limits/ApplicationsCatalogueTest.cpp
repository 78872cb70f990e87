#include "limits/ApplicationsCatalogue.h"

#include <gtest/gtest.h>

#include <random>

#include "platform/HotKeys.h"
#include "tests/support/FakeApplicationPreferences.h"
#include "tests/support/FakeInstalledApplications.h"

namespace vardell {
namespace {

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
  return {{QStringLiteral("URL"), QStringLiteral("/A/") + QString::fromUtf8(identifier)},
          {QStringLiteral("Name"), name},
          {QStringLiteral("Identifier"), QString::fromUtf8(identifier)}};
}

class CatalogueTest : public testing::Test {
 protected:
  CatalogueTest() {
    installed_.folders = {QStringLiteral("/A"), QStringLiteral("/B")};
    installed_.Add(Bundle("/A/zoo", "org.zoo", "zoo"));
  }
  // What is stored, as "identifier=name" in its order.
  QString Stored() {
    QStringList rows;
    const QVariant stored = preferences_.values.value(QStringLiteral("Applications"));
    for (const QVariant& row : stored.toList()) {
      const QVariantMap map = row.toMap();
      rows.push_back(map[QStringLiteral("Identifier")].toString() + u'=' +
                     map[QStringLiteral("Name")].toString());
    }
    return rows.join(u' ');
  }
  void Store(const QVariant& value) {
    preferences_.values.insert(QStringLiteral("Applications"), value);
  }
  void Build() { BuildApplicationsCatalogue(installed_, preferences_); }
  std::int32_t Add(const char* path) {
    return AddApplicationToCatalogue(installed_, preferences_, QString::fromUtf8(path));
  }

  FakeInstalledApplications installed_;
  FakeApplicationPreferences preferences_;
};

const char kComputer[] = "com.apple.loginwindow=family";

TEST_F(CatalogueTest, HasTheComputerThenTheRestByNameAndIsStored) {
  installed_.Add(Bundle("/A/b", "org.b", "Émile"));
  installed_.Add(Bundle("/A/c", "org.c", "apple"));
  installed_.Add(Bundle("/A/d", "org.d", "Äpfel"));
  installed_.Add(Bundle("/A/e", "org.e", "Banana"));
  installed_.Add(Bundle("/A/f", "org.f", "äpfel 2"));
  EXPECT_FALSE(HasApplicationsCatalogue(preferences_));
  Build();
  EXPECT_EQ(Stored(),
            QString::fromUtf8(kComputer) +
                QString::fromUtf8(
                    " org.c=apple org.e=Banana org.zoo=zoo org.d=Äpfel org.f=äpfel 2 org.b=Émile"));
  EXPECT_TRUE(preferences_.isStored);
  const QVariantList rows = CopyApplicationsCatalogue(installed_, preferences_);
  const QVariantMap computer{
      {QStringLiteral("URL"), QStringLiteral("/System/Library/CoreServices/Finder.app")},
      {QStringLiteral("Name"), QStringLiteral("family")},
      {QStringLiteral("Identifier"), QStringLiteral("com.apple.loginwindow")}};
  EXPECT_EQ(rows[0].toMap(), computer);
  EXPECT_EQ(rows[1].toMap().value(QStringLiteral("URL")), QStringLiteral("/A/c"));
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
  EXPECT_EQ(Stored(), QString::fromUtf8(kComputer) +
                          QString::fromUtf8(" org.name=bell\uFFFD com.brenwick.fakeID.GAME=game "
                                            "org.one=one org.unnamed=unnamed org.zoo=zoo"));
}

TEST_F(CatalogueTest, IsBuiltOnlyWhereNoArrayIsStored) {
  Store(QVariantList{});
  Build();
  EXPECT_EQ(installed_.scans, 0);
  EXPECT_TRUE(HasApplicationsCatalogue(preferences_));
  EXPECT_TRUE(CopyApplicationsCatalogue(installed_, preferences_).isEmpty());
  for (const QVariant& other : {QVariant(QStringLiteral("org.zoo")), QVariant(QVariantMap{})}) {
    Store(other);
    EXPECT_FALSE(HasApplicationsCatalogue(preferences_));
    EXPECT_EQ(CopyApplicationsCatalogue(installed_, preferences_).size(), 2);
    EXPECT_EQ(Stored(), QString::fromUtf8(kComputer) + QStringLiteral(" org.zoo=zoo"));
  }
}

TEST_F(CatalogueTest, AddingKeepsTheOrderAndStoresWithoutSynchronising) {
  installed_.unlisted.insert(QStringLiteral("/opt/m"), Bundle("/opt/m", "org.M", "Mine"));
  installed_.unlisted.insert(QStringLiteral("/opt/g"), Bare("/opt/g", FourCharCode("ab  "), "ab"));
  Build();
  EXPECT_EQ(Add("/opt/m"), 0);
  EXPECT_FALSE(preferences_.isStored);
  EXPECT_EQ(Add("/opt/g"), 0);
  const QString all = QString::fromUtf8(kComputer) +
                      QStringLiteral(" com.brenwick.fakeID.ab  =ab org.M=Mine org.zoo=zoo");
  EXPECT_EQ(Stored(), all);
  installed_.unlisted.insert(QStringLiteral("/opt/n"), Bundle("/opt/n", "ORG.m", "Another"));
  installed_.unlisted.insert(QStringLiteral("/opt/o"), Bundle("/opt/o", nullptr, "Nobody"));
  EXPECT_EQ(Add("/opt/n"), -2) << "in another letter case";
  EXPECT_EQ(Add("/A/zoo"), -2);
  EXPECT_EQ(Add("/opt/o"), -1) << "no identifier";
  EXPECT_EQ(Add("/no/such"), -1);
  EXPECT_EQ(Stored(), all);
}

TEST_F(CatalogueTest, AddingMakesAMissingCatalogueAndTakesAnEmptyOne) {
  installed_.unlisted.insert(QStringLiteral("/opt/m"), Bundle("/opt/m", "org.m", "m"));
  EXPECT_EQ(Add("/no/such"), -1);
  EXPECT_TRUE(preferences_.values.isEmpty());
  EXPECT_EQ(Add("/opt/m"), 0);
  EXPECT_EQ(Stored(), QString::fromUtf8(kComputer) + QStringLiteral(" org.m=m org.zoo=zoo"));
  Store(QVariantList{});
  EXPECT_EQ(Add("/opt/m"), 0);
  EXPECT_EQ(Stored(), QString::fromUtf8(kComputer) + QStringLiteral(" org.m=m"));
}

TEST_F(CatalogueTest, RebuildingTakesNewNamesAndKeepsWhatWasAddedAndStillExists) {
  for (const char* path : {"/opt/stays", "/opt/goes"})
    installed_.unlisted.insert(QString::fromUtf8(path), Bundle(path, path + 5, path + 5));
  EXPECT_EQ(Add("/opt/stays"), 0);
  EXPECT_EQ(Add("/opt/goes"), 0);
  installed_.unlisted.remove(QStringLiteral("/opt/goes"));
  installed_.items.clear();
  installed_.Add(Bundle("/A/new", "org.new", "new"));
  RebuildApplicationsCatalogue(installed_, preferences_);
  EXPECT_EQ(Stored(), QString::fromUtf8(kComputer) + QStringLiteral(" org.new=new stays=stays"));
  EXPECT_TRUE(preferences_.isStored);
  installed_.Add(Bundle("/A/stays", "Stays", "found by the scan now"));
  RebuildApplicationsCatalogue(installed_, preferences_);
  EXPECT_EQ(Stored(), QString::fromUtf8(kComputer) +
                          QStringLiteral(" Stays=found by the scan now org.new=new"));
}

TEST_F(CatalogueTest, RowsWithoutANameStandLastWhateverTheOrder) {
  installed_.unlisted.insert(QStringLiteral("/opt/m"), Bundle("/opt/m", "org.m", "m"));
  QVariantList rows;
  for (int i = 0; i < 300; ++i) {
    const QString name = QString::number((i * 7919) % 1000);
    const QByteArray id = QByteArray::number(i);
    rows.push_back(i % 3 == 0 ? QVariant(Row(id, QVariant()))
                              : QVariant(Row(id, i % 3 == 1 ? QVariant(name) : QVariant(i))));
  }
  rows.push_back(QVariant(17));
  std::shuffle(rows.begin(), rows.end(), std::mt19937(4));
  rows.push_front(Row("computer", QStringLiteral("old")));
  Store(rows);
  EXPECT_EQ(Add("/opt/m"), 0);
  const QVariantList sorted = CopyApplicationsCatalogue(installed_, preferences_);
  ASSERT_EQ(sorted.size(), 303);
  const auto nameAt = [&](int i) { return sorted[i].toMap().value(QStringLiteral("Name")); };
  EXPECT_EQ(nameAt(0), QStringLiteral("family"));
  for (int i = 2; i < 102; ++i) {
    EXPECT_LE(CompareCatalogueNames(sorted[i - 1].toMap(), sorted[i].toMap()), 0) << i;
  }
  EXPECT_EQ(nameAt(101), QStringLiteral("m"));
  for (int i = 102; i < 303; ++i) EXPECT_NE(nameAt(i).typeId(), QMetaType::QString) << i;
}

TEST(CompareCatalogueNamesTest, FoldsCaseAndTakesAMissingNameAsEqual) {
  const struct {
    const char* what;
    QVariant one, other;
    int sign;
  } rows[] = {
      {"letter case", QStringLiteral("CHESS"), QStringLiteral("chess"), 0},
      {"beyond ASCII", QStringLiteral("ΣΊΣΥΦΟΣ"), QStringLiteral("σίσυφος"), 0},
      {"less", QStringLiteral("a"), QStringLiteral("B"), -1},
      {"more", QStringLiteral("b"), QStringLiteral("A"), 1},
      {"the longer one", QStringLiteral("Aa"), QStringLiteral("a"), 1},
      {"one has none", QVariant(), QStringLiteral("a"), 0},
      {"no text", QStringLiteral("a"), 17, 0},
  };
  for (const auto& row : rows) {
    const int found = CompareCatalogueNames(Row("one", row.one), Row("other", row.other));
    EXPECT_EQ((found > 0) - (found < 0), row.sign) << row.what;
  }
}

TEST(CatalogueContainsIdentifierTest, ComparesWholeIdentifiersInAnyCase) {
  const QVariantList rows{17, Row("org.Zoo", QStringLiteral("zoo")), QVariantMap{}};
  EXPECT_TRUE(CatalogueContainsIdentifier(rows, QStringLiteral("ORG.zOO")));
  for (const char* other : {"org.zo", "org.zoo2", "zoo", ""})
    EXPECT_FALSE(CatalogueContainsIdentifier(rows, QString::fromUtf8(other))) << other;
}

}  // namespace
}  // namespace vardell
