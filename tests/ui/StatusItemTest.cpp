// The rules of the status item's menu, without any status bar to show it.
#include "ui/StatusItem.h"

#include <gtest/gtest.h>

#include <QAction>

#include "Common Sources/Localization.h"
#include "tests/support/FakeStatusBar.h"
#include "tests/support/QtEnvironment.h"
#include "ui/Images.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

using Texts = std::vector<std::string>;

std::string Line(const char* duration, const char* name) {
  return FormatLocalized(Localized("Status Item Credit Format"),
                         {QString::fromUtf8(duration), QString::fromUtf8(name)})
      .toStdString();
}

class StatusItemTest : public testing::Test {
 protected:
  // From the top to the disk's; placeholders as "-".
  Texts Lines() const {
    const QList<QAction*> actions = item->Menu().actions();
    const auto last = actions.size() - 1;
    EXPECT_TRUE(actions[last - 1]->isSeparator());
    EXPECT_TRUE(actions[last]->isEnabled());
    Texts lines;
    for (qsizetype i = 0; i <= last - 2; ++i) {
      EXPECT_FALSE(actions[i]->isEnabled());
      const QString text = actions[i]->text();
      lines.push_back(text == Localized("No app watch") ? "-" : text.toStdString());
    }
    return lines;
  }
  void Set(std::int32_t pid, const char* name, double credit = 5.0) {
    SetAppCreditLine(*item, pid, QString::fromUtf8(name), credit);
  }

  FakeStatusBar bar;
  std::unique_ptr<StatusItem> item = CreateStatusItem({bar, [] {}, [] {}});
  const std::string disk = Localized("No disk watch").toStdString();
};

TEST_F(StatusItemTest, LinesComeAndGoInTheirPlaces) {
  EXPECT_EQ(Lines(), (Texts{"-", disk}));
  Set(10, "one");
  Set(-1, "session");
  Set(11, "two");
  Set(10, "one", 2.0);
  const std::string session = Line("5 minutes", "session"), two = Line("5 minutes", "two");
  EXPECT_EQ(Lines(), (Texts{session, Line("2 minutes", "one"), two, disk}));
  RemoveAppCreditLine(*item, 10);
  RemoveAppCreditLine(*item, 99);
  EXPECT_EQ(Lines(), (Texts{session, two, disk}));
  EXPECT_TRUE(HasAppCreditLine(*item, -1));
  EXPECT_FALSE(HasAppCreditLine(*item, 10));
  RemoveAppCreditLine(*item, -1);
  RemoveAppCreditLine(*item, 11);
  EXPECT_EQ(Lines(), (Texts{"-", disk}));
  RemoveAppCreditLine(*item, 99);
  EXPECT_EQ(Lines(), (Texts{"-", "-", disk})) << "a removal from the empty table adds one more";
  Set(10, "one");
  EXPECT_EQ(Lines(), (Texts{"-", Line("5 minutes", "one"), disk})) << "only the newest one goes";
}

TEST_F(StatusItemTest, ALineTellsTheCreditAndTheNameAsItStands) {
  const std::tuple<double, const char*, const char*, const char*> kRows[] = {
      {5.45, "name", "5 minutes", "name"},
      {125.2, "%1 %2", "2 hours 5 minutes", "%1 %2"},
      {0.61, "Tom & Jerry_2", "0 minute", "Tom && Jerry_2"},
      {0.6, "<b>bold</b>", "0 second", "<b>bold</b>"},
      {0.45, "two\tcolumns\n", "45 seconds", "two columns"},
      {0.29, "turned\u202e round", "28 seconds", "turned round"},
      {1e300, "name", "35791394 hours 7 minutes", "name"}};
  for (const auto& [credit, name, duration, shown] : kRows) {
    Set(10, name, credit);
    EXPECT_EQ(Lines().front(), Line(duration, shown));
  }
  Set(10, std::string(5000, 'n').c_str());
  EXPECT_LT(Lines().front().size(), 100u);
  EXPECT_NE(Lines().front().find("n\u2026n"), std::string::npos) << "cut in its middle";
}

TEST_F(StatusItemTest, TheDiskLineTellsUsageThenLimit) {
  SetDiskLine(*item, true, 4ULL << 30, 100);
  EXPECT_EQ(Lines().back(),
            FormatLocalized(Localized("Disk usage"), {u"100 B"_s, u"4.00 GB"_s}).toStdString());
  SetDiskLine(*item, false, 0, 0);
  EXPECT_EQ(Lines().back(), disk);
}

TEST_F(StatusItemTest, AStatusBarThatComesAfterTheItemHasGoneIsNoMatter) {
  item.reset();
  bar.Come();
}

TEST(ImagesTest, ThePicturesAreThereInBothSizes) {
  for (const QIcon& icon : {EyeIcon(), LockIcon()})
    EXPECT_EQ(icon.availableSizes(), (QList<QSize>{{22, 22}, {44, 44}}));
}

}  // namespace
}  // namespace vardell
