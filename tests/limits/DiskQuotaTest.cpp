#include "limits/DiskQuota.h"

#include <gtest/gtest.h>

#include <QStringList>
#include <limits>

#include "limits/SizeString.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

constexpr std::uint64_t kMega = 1u << 20;
constexpr std::int16_t kLeast = std::numeric_limits<std::int16_t>::min();
constexpr std::int16_t kMost = std::numeric_limits<std::int16_t>::max();

TEST(DiskQuotaTest, DecidesByTheCounter) {
  constexpr auto kHuge = std::numeric_limits<std::uint64_t>::max();
  struct Row {
    const char* behaviour;
    std::int16_t counter;
    std::uint64_t usage;
    std::int64_t limit;
    bool messagePending;
    bool endSession;
    bool warn;
    std::int16_t after;
  };
  constexpr Row kRows[] = {
      {"within the quota nothing happens", 0, 5, 10, false, false, false, 0},
      {"exactly the limit is within", 0, 10, 10, false, false, false, 0},
      {"over it warns, and counts only once that was seen", 0, 11, 10, false, false, true, 0},
      {"one check after the warning is silence", -1, 11, 10, false, false, false, -2},
      {"two checks after it is the end", -2, 11, 10, false, true, false, -3},
      {"then silence", -3, 11, 10, false, false, false, -4},
      {"the lowest counter becomes the highest", kLeast, 11, 10, false, false, false, kMost},
      {"and goes on down", kMost, 11, 10, false, false, false, kMost - 1},
      {"to the next warning", 1, 11, 10, false, false, false, 0},
      {"within the quota again, the next warning is armed", -2, 10, 10, false, false, false, 0},
      {"a quota of nothing allows nothing", 0, 1, 0, false, false, true, 0},
      {"but an empty folder is within it", -1, 0, 0, false, false, false, 0},
      {"below nothing is every folder", 0, 0, -1, false, false, true, 0},
      {"what is no signed number is below nothing", -1, kHuge, 0, false, false, false, 0},
      {"under the message nothing is decided", 0, 11, 10, true, false, false, 0},
      {"not the end either", -2, 11, 10, true, false, false, -2},
      {"nor is the next warning armed", -1, 5, 10, true, false, false, -1},
  };
  for (const Row& row : kRows) {
    const DiskQuotaDecision decision =
        DecideDiskQuota(row.counter, row.usage, row.limit, row.messagePending);
    EXPECT_EQ(decision.endSession, row.endSession) << row.behaviour;
    EXPECT_EQ(decision.warn, row.warn) << row.behaviour;
    EXPECT_EQ(decision.counter, row.after) << row.behaviour;
  }
}

TEST(SizeStringTest, ChangesUnitAtEachThreshold) {
  const std::tuple<std::uint64_t, const char*> kRows[] = {
      {0, "0 B"},
      {1023, "1023 B"},
      {1024, "1 KB"},
      {65534, "63 KB"},
      {65535, "--"},
      {65536, "64 KB"},
      {1048575, "1023 KB"},
      {1048576, "1.00 MB"},
      {1572864, "1.50 MB"},
      {1073741823, "1024.00 MB"},
      {1073741824, "1.00 GB"},
      {4294967294, "4.00 GB"},
      {4294967295, "--"},
      {4294967296, "4.00 GB"},
      {std::numeric_limits<std::uint64_t>::max(), "17179869184.00 GB"}};
  for (const auto& [bytes, words] : kRows)
    EXPECT_EQ(CopySizeString(bytes).toStdString(), words) << bytes;
}

class DiskQuotaCheckTest : public testing::Test {
 protected:
  DiskQuotaCheckTest() { Renew(1); }

  // --- vocabulary

  void Renew(std::int32_t megabytes) {
    entry_ = std::make_shared<WatchedApp>();
    entry_->limits.diskQuotaEnabled = 1;
    entry_->limits.diskQuotaValue = megabytes;
  }
  void Check() {
    DiskQuotaActions actions;
    actions.measure = [this](std::function<void(std::uint64_t)> deliver) {
      if (!deliver_) deliver_ = std::move(deliver);
    };
    actions.showMessage = [this](const QString&, std::function<void()> dismissed) {
      dismiss_ = std::move(dismissed);
    };
    actions.setDiskLine = [this](bool enabled, std::uint64_t limit, std::uint64_t usage) {
      told_ << u"%1 %2 of %3"_s.arg(enabled).arg(usage).arg(limit);
    };
    CheckDiskQuota(entry_, quota_, actions);
    EXPECT_EQ(entry_->limits.credit, 10);
  }
  void Figure(std::uint64_t usage) { std::exchange(deliver_, nullptr)(usage); }
  QStringList Told() { return std::exchange(told_, {}); }

  WatchedAppPtr entry_;
  DiskQuota quota_;
  std::function<void(std::uint64_t)> deliver_;
  std::function<void()> dismiss_;
  QStringList told_;
};

TEST_F(DiskQuotaCheckTest, ACheckUnderTheMessageDecidesNothingWhenItsFigureComesLater) {
  Check();
  Figure(2 * kMega);
  Check();
  dismiss_();
  Figure(2 * kMega);
  EXPECT_EQ(quota_.warningCounter, -1);
}

TEST_F(DiskQuotaCheckTest, WhatIsNoQuotaSaysSoAndMeasuresNothing) {
  entry_->limits.diskQuotaEnabled = 0;
  Check();
  EXPECT_EQ(Told(), QStringList(u"0 0 of 0"_s));
  EXPECT_FALSE(deliver_);
}

TEST_F(DiskQuotaCheckTest, AFigureWhoseEntryHasGoneIsDropped) {
  Check();
  entry_.reset();
  Figure(2 * kMega);
  EXPECT_EQ(Told(), QStringList());
}

TEST_F(DiskQuotaCheckTest, AFigureServesTheEntryThatAskedLast) {
  Check();
  Renew(3);
  Check();
  Figure(2 * kMega);
  EXPECT_EQ(Told(), QStringList(u"1 2097152 of 3145728"_s));
  Check();
  Renew(0);
  entry_->limits.diskQuotaEnabled = 0;
  Check();
  (void)Told();
  Figure(2 * kMega);
  EXPECT_EQ(Told(), QStringList()) << "switched off meanwhile";
}

}  // namespace
}  // namespace vardell
