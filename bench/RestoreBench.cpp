// What a backup and its restore cost the thread that answers agents: a school of 500 users with 10
// limits each and 200 days of use, a million of them. For each part it prints how often it was
// done, its longest time by the wall clock and of the processor, and the whole. The store is made
// in the folder $TMPDIR, or else in /tmp.

#include <time.h>

#include <QTemporaryDir>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>

#include "server/Backup.h"
#include "server/Household.h"
#include "server/HouseholdRestore.h"
#include "server/LimitsKeys.h"
#include "server/Store.h"

namespace vardell::server {
namespace {

constexpr int kUsers = 500;
constexpr int kLimits = 10;
constexpr int kDays = 200;
const QDate kLastDay(2026, 11, 20);

double Seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// Every call of one kind of work.
class Part {
 public:
  explicit Part(const char* name) : name_(name) {}
  ~Part() {
    std::printf("%-28s %5d times, longest %7.1f ms (%7.1f ms of the processor), in all %6.2f s\n",
                name_, times_, 1000 * longest_, 1000 * longestProcessor_, all_);
  }
  void Time(const std::function<void()>& work) {
    const double wall = Seconds(CLOCK_MONOTONIC);
    const double processor = Seconds(CLOCK_THREAD_CPUTIME_ID);
    work();
    const double took = Seconds(CLOCK_MONOTONIC) - wall;
    ++times_;
    all_ += took;
    longest_ = std::max(longest_, took);
    longestProcessor_ = std::max(longestProcessor_, Seconds(CLOCK_THREAD_CPUTIME_ID) - processor);
  }

 private:
  const char* name_;
  int times_ = 0;
  double all_ = 0;
  double longest_ = 0;
  double longestProcessor_ = 0;
};

Backup School(int creditOfAll) {
  Backup backup;
  for (int user = 0; user < kUsers; ++user) {
    for (int limit = 0; limit < kLimits; ++limit) {
      const QString name = QStringLiteral("user%1").arg(user);
      const QString identifier = QStringLiteral("org.example.application%1").arg(limit);
      backup.limits.push_back({name, identifier, NewLimits(), creditOfAll, 0});
      backup.usage.push_back({name, identifier, {}});
      UsageDays& days = backup.usage.back().days;
      for (int day = kDays; day > 0; --day) {
        days.emplace_hint(days.end(), kLastDay.addDays(-day), creditOfAll + day % 7);
      }
    }
  }
  return backup;
}

void Restore(const char* what, Household& household, Backup backup) {
  std::printf("\n%s\n", what);
  Part beginning("beginning");
  Part steps("steps");
  Part last("last step");
  Part end("end");
  std::unique_ptr<Household::Restore> restore;
  beginning.Time([&] { restore = household.BeginRestore({0, QStringLiteral("uid 0")}, backup); });
  std::optional<RestoreResult> result;
  while (!result) {
    const bool isLast = restore->IsLastStepNext();
    (isLast ? last : steps).Time([&] { result = restore->Step(); });
  }
  end.Time([&] { restore.reset(); });
  if (result->status != AdminStatus::Ok) std::printf("%s\n", qPrintable(result->message));
}

void Run() {
  const QTemporaryDir folder;
  const auto open = [&] {
    Clocks clocks{[] { return std::chrono::milliseconds(0); }, QStringLiteral("bench"),
                  [] { return QDateTime(kLastDay, QTime(12, 0), Qt::UTC); },
                  std::chrono::milliseconds(1000)};
    return std::make_unique<Household>(OpenStore(folder.filePath(QStringLiteral("store"))), clocks);
  };
  auto household = open();
  Restore("into an empty store", *household, School(10));
  Restore("everything different", *household, School(20));
  std::printf("\nback up, and read\n");
  QByteArray text;
  Backup backup;
  {
    Part copy("copy");
    Part write("text, on a thread of its own");
    Part read("read, on a thread of its own");
    Part compare("compare");
    copy.Time([&] { backup = household->MakeBackup(); });
    write.Time([&] { text = WriteBackup(backup, {}, {}); });
    read.Time([&] { (void)ReadBackup(text, &backup); });
    compare.Time([&] { (void)household->Compare(backup); });
  }
  Restore("everything the same", *household, backup);
  Restore("to nothing", *household, {});
  std::printf("\n");
  household.reset();
  Part start("start-up");
  start.Time([&] { household = open(); });
}

}  // namespace
}  // namespace vardell::server

int main() {
  vardell::server::Run();
}
