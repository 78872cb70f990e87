// The rules of the status item's menu, without any status bar to show it.
#include "ui/StatusItem.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QImage>

#include "Common Sources/Localization.h"
#include "limits/SizeString.h"
#include "tests/support/FakeStatusBar.h"
#include "tests/support/QtEnvironment.h"
#include "ui/Images.h"

namespace vardell {
namespace {

const auto* const kEnvironment =
    testing::AddGlobalTestEnvironment(new test::QtEnvironment<QApplication>);

std::string Line(const char* duration, const char* name) {
  return FormatLocalized(Localized("Status Item Credit Format"),
                         {QString::fromUtf8(duration), QString::fromUtf8(name)})
      .toStdString();
}

class StatusItemTest : public testing::Test {
 protected:
  // Application lines and placeholders, the latter as "-". Checks what is below them.
  std::vector<std::string> Lines() const {
    const QList<QAction*> actions = item->Menu().actions();
    const auto below = actions.size() - 3;
    EXPECT_TRUE(actions[below + 1]->isSeparator());
    EXPECT_EQ(actions[below + 2]->text(), Localized("Lock computer"));
    EXPECT_TRUE(actions[below + 2]->isEnabled());
    std::vector<std::string> lines;
    for (qsizetype i = 0; i <= below; ++i) {
      EXPECT_FALSE(actions[i]->isEnabled());
      const QString text = actions[i]->text();
      if (i < below) lines.push_back(text == Localized("No app watch") ? "-" : text.toStdString());
    }
    return lines;
  }
  QString DiskLine() const {
    return item->Menu().actions()[item->Menu().actions().size() - 3]->text();
  }
  void Set(std::int32_t pid, const char* name, double credit = 5.0) {
    SetAppCreditLine(*item, pid, QString::fromUtf8(name), credit);
  }

  FakeStatusBar bar;
  int opened = 0;
  int locked = 0;
  std::unique_ptr<StatusItem> item =
      CreateStatusItem({bar, [this] { ++opened; }, [this] { ++locked; }});
};

using Texts = std::vector<std::string>;

TEST_F(StatusItemTest, LinesComeAndGoInTheirPlaces) {
  EXPECT_EQ(Lines(), Texts{"-"});
  Set(10, "one");
  Set(11, "two");
  Set(-1, "session");
  Set(12, "three");
  EXPECT_EQ(Lines(), (Texts{Line("5 minutes", "session"), Line("5 minutes", "one"),
                            Line("5 minutes", "two"), Line("5 minutes", "three")}));
  Set(11, "two", 2.0);
  RemoveAppCreditLine(*item, 10);
  RemoveAppCreditLine(*item, 99);
  EXPECT_EQ(Lines(), (Texts{Line("5 minutes", "session"), Line("2 minutes", "two"),
                            Line("5 minutes", "three")}));
  EXPECT_TRUE(HasAppCreditLine(*item, -1));
  EXPECT_FALSE(HasAppCreditLine(*item, 10));
  for (const std::int32_t pid : {-1, 11, 12}) RemoveAppCreditLine(*item, pid);
  EXPECT_EQ(Lines(), Texts{"-"});
}

TEST_F(StatusItemTest, ARemovalFromTheEmptyTableAddsAPlaceholderThatStays) {
  RemoveAppCreditLine(*item, 99);
  EXPECT_EQ(Lines(), (Texts{"-", "-"}));
  Set(10, "one");
  EXPECT_EQ(Lines(), (Texts{"-", Line("5 minutes", "one")})) << "only the newest one goes";
  Set(-1, "session");
  EXPECT_EQ(Lines().front(), Line("5 minutes", "session"));
}

TEST_F(StatusItemTest, CreditIsMinutesAboveSixtyHundredths) {
  struct Row {
    double credit;
    const char* text;
  };
  constexpr Row kRows[] = {{5.45, "5 minutes"},  {125.2, "2 hours 5 minutes"},
                           {0.61, "0 minute"},   {0.6, "0 second"},
                           {0.45, "45 seconds"}, {0.29, "28 seconds"},
                           {0.0, "0 second"},    {1e300, "35791394 hours 7 minutes"}};
  for (const Row& row : kRows) {
    Set(10, "name", row.credit);
    EXPECT_EQ(Lines().front(), Line(row.text, "name")) << row.credit;
  }
}

TEST_F(StatusItemTest, ANameIsShownAsItStandsAndNeverHidesTheTime) {
  const struct {
    const char* name;
    const char* shown;
  } kRows[] = {{"Tom & Jerry_2", "Tom && Jerry_2"},
               {"<b>bold</b>", "<b>bold</b>"},
               {"%1 %2", "%1 %2"},
               {"two\tcolumns\n", "two columns"},
               {"turned\u202e round", "turned round"}};
  for (const auto& row : kRows) {
    Set(10, row.name);
    EXPECT_EQ(Lines().front(), Line("5 minutes", row.shown));
  }
  Set(10, std::string(5000, 'n').c_str());
  const QString line = QString::fromStdString(Lines().front());
  EXPECT_LT(line.size(), 100);
  EXPECT_TRUE(line.contains(u"n\u2026n") && line.contains(u"5 minutes")) << Lines().front();
}

TEST_F(StatusItemTest, TheDiskLineTellsUsageThenLimit) {
  EXPECT_EQ(DiskLine(), Localized("No disk watch"));
  SetDiskLine(*item, true, 4ULL << 30, 100);
  EXPECT_EQ(DiskLine(), FormatLocalized(Localized("Disk usage"),
                                        {CopySizeString(100), CopySizeString(4ULL << 30)}));
  SetDiskLine(*item, false, 0, 0);
  EXPECT_EQ(DiskLine(), Localized("No disk watch"));
}

TEST_F(StatusItemTest, OpeningRefreshesAndTheCommandLocks) {
  Q_EMIT const_cast<QMenu&>(item->Menu()).aboutToShow();
  item->Menu().actions().last()->trigger();
  item->Menu().actions().first()->trigger();
  EXPECT_EQ(opened, 1);
  EXPECT_EQ(locked, 1);
}

TEST_F(StatusItemTest, AStatusBarThatComesAfterTheItemHasGoneIsNoMatter) {
  item.reset();
  bar.Come();
}

TEST_F(StatusItemTest, ThePicturesAreClearAtBothSizes) {
  for (const QIcon& icon : {EyeIcon(), LockIcon()}) {
    for (const int size : {22, 44}) {
      const QImage image = icon.pixmap(size).toImage();
      ASSERT_EQ(image.size(), QSize(size, size));
      EXPECT_EQ(image.pixelColor(0, 0).alpha(), 0);
      EXPECT_EQ(image.pixelColor(image.rect().center()).alpha(), 255);
    }
  }
  EXPECT_NE(EyeIcon().pixmap(22).toImage(), LockIcon().pixmap(22).toImage());
}

}  // namespace
}  // namespace vardell
