// What the measurement of a large home folder does to the tick: an agent on fakes, with its own
// timer, tick, quota check and worker, whose home folder holds 200,000 files in 20,000 folders. It
// prints the largest gap between two ticks of a tenth of a second, first without and then with a
// quota that is checked at each tick, so that one measurement follows another; then the same with
// whole seconds. Needs a build with test hooks. The tree is made in the folder $TMPDIR, or else in
// /tmp.

#include <pwd.h>
#include <sys/resource.h>

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "Common Sources/TestHooks.h"
#include "bench/FolderTree.h"
#include "core/Agent.h"
#include "core/EnforcementTick.h"
#include "tests/support/FakeFrontApplication.h"
#include "tests/support/FakeHotKeys.h"
#include "tests/support/FakePreferences.h"
#include "tests/support/FakeProcesses.h"
#include "tests/support/FakeScreens.h"
#include "tests/support/FakeServiceDiscovery.h"
#include "tests/support/FakeSession.h"
#include "tests/support/FakeSystem.h"

namespace vardell::test {
namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

struct World {
  FakeProcesses processes;
  FakeSession session;
  FakeSystem system;
  FakePreferences preferences;
  FakeServiceDiscovery discovery;
  FakeHotKeys hotKeys;
  FakeFrontApplication front;
  FakeScreens screens;
};

struct Ticks {
  std::vector<double> gaps;  // milliseconds
  std::vector<double> work;
  int figures = 0;
};

double Largest(const std::vector<double>& values) {
  return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

Ticks Run(std::chrono::milliseconds second, int count, bool quota, std::uint64_t expected) {
  World world;
  Agent agent({world.processes, world.session, world.system, world.preferences, world.discovery,
               world.hotKeys, world.front, world.screens},
              MonotonicNow, second);
  Ticks ticks;
  agent.ui.setDiskLine = [&](bool enabled, std::uint64_t, std::uint64_t usage) {
    if (enabled && usage != expected) std::printf("a wrong figure: %llu\n", 0ull + usage);
    ticks.figures += enabled;
  };
  const auto entry = std::make_shared<WatchedApp>();
  entry->identifier = QLatin1String(kGlobalSettingsIdentifier);
  entry->limits.diskQuotaEnabled = quota;
  entry->limits.diskQuotaValue = 1 << 30;
  agent.watchedApps.push_back(entry);

  std::chrono::steady_clock::time_point last{};
  agent.tickTimer.Start([&] {
    const auto now = std::chrono::steady_clock::now();
    if (last.time_since_epoch().count() != 0)
      ticks.gaps.push_back(Milliseconds(now - last).count());
    last = now;
    entry->ticks = 0;
    EnforcementTick(agent);
    ticks.work.push_back(Milliseconds(std::chrono::steady_clock::now() - now).count());
    if (ticks.gaps.size() == static_cast<std::size_t>(count)) QCoreApplication::quit();
  });
  QCoreApplication::exec();
  return ticks;
}

void Report(std::chrono::milliseconds second, int count, std::uint64_t size) {
  for (const bool quota : {false, true}) {
    const Ticks ticks = Run(second, count, quota, size);
    std::printf(
        "%4d ticks of %4d ms, %-9s: largest gap %7.1f ms, longest tick %6.3f ms, "
        "%d figures\n",
        count, static_cast<int>(second.count()), quota ? "measuring" : "idle", Largest(ticks.gaps),
        Largest(ticks.work), ticks.figures);
    std::fflush(stdout);
  }
}

}  // namespace
}  // namespace vardell::test

int main(int argc, char** argv) {
  using namespace vardell;
  QCoreApplication application(argc, argv);
  const QTemporaryDir root;
  qputenv("VARDELL_TEST_ROOT", root.path().toLocal8Bit());
  if (TestRoot().isEmpty()) {
    std::fputs("quota_tick_bench: needs a build with -DVARDELL_TEST_HOOKS=ON\n", stderr);
    return 1;
  }
  const QString home = root.path() + QString::fromLocal8Bit(getpwuid(getuid())->pw_dir);
  QDir().mkpath(home);
  const FolderTree tree(home.toStdString());
  test::Report(std::chrono::milliseconds(100), 300, tree.size());
  test::Report(std::chrono::milliseconds(1000), 30, tree.size());
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("largest resident size %.1f MB\n", static_cast<double>(usage.ru_maxrss) / 1024);
}
