// Agents' changes through a store of PostgreSQL against pgbench's own upserts, on the same cluster
// in one run: upserts of one row by 16 clients (pgbench -c 16), and batches of a thousand changes,
// each of which takes credit, moves a lane, and adds to the ledger and to the use of a day.
// PostgresUpserts [SECONDS]; the cluster is made in $TMPDIR, or else in /tmp.

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "server/PostgresStore.h"
#include "tests/server/StoreFixture.h"

namespace vardell::server {
namespace {

using test::Clock;

constexpr int kAccounts = 10000;
constexpr std::size_t kBatch = 1000;

Name NameOfAccount(int number) {
  return {QStringLiteral("user%1").arg(number / 10),
          QStringLiteral("org.example.application%1").arg(number % 10)};
}

class Bench : public StoreTestBase {
 public:
  // Upserts a second.
  static double OfPgbench(int seconds) {
    Sql(Cluster().Uri(QStringLiteral("postgres")),
        QStringLiteral("CREATE TABLE public.plain (a text COLLATE \"C\", b text COLLATE \"C\", "
                       "minutes bigint NOT NULL, PRIMARY KEY (a, b))"));
    const std::string script = Cluster().Folder().toStdString() + "/upsert.sql";
    std::ofstream(script) << "\\set n random(0, " << kAccounts - 1
                          << ")\n"
                             "INSERT INTO public.plain AS plain VALUES ('user' || (:n / 10), "
                             "'org.example.application' || (:n % 10), 1) ON CONFLICT (a, b) "
                             "DO UPDATE SET minutes = plain.minutes + 1;\n";
    const test::Finished run =
        test::Run({test::PostgresProgram("pgbench"), "-c", "16", "-f", script, "-n", "-T",
                   std::to_string(seconds), "-U", "vardell", "-h", Cluster().Folder().toStdString(),
                   "-p", std::to_string(Cluster().Port()), "postgres"},
                  {});
    if (run.status != 0) std::printf("pgbench failed: %s\n", qPrintable(run.output));
    const QString line = run.output.mid(run.output.indexOf(QStringLiteral("tps = ")) + 6);
    return line.left(line.indexOf(QLatin1Char(' '))).toDouble();
  }

  // Changes a second.
  static double OfStore(int seconds) {
    PostgresStore store(NewStore(), kUnhurried);
    store.SetServerId(QStringLiteral("bench"));
    std::vector<StoreChange> changes;
    for (int i = 0; i < kAccounts; ++i) {
      changes.push_back(Setting(NameOfAccount(i), 0, 0, 1000000));
    }
    const ApplyResult made = store.Apply(changes, kBoot, 0);
    if (made.status != ApplyStatus::Done) {
      std::printf("refused: %s\n", qPrintable(made.error));
      return 0;
    }
    (void)store.Load(kBoot);
    std::uint64_t done = 0;
    const auto begin = Clock::now();
    std::chrono::duration<double> took{0};
    for (int next = 0; took.count() < seconds; took = Clock::now() - begin) {
      changes.clear();
      while (changes.size() < kBatch) {
        changes.push_back(Use(NameOfAccount(next++ % kAccounts), 1, 1000000));
      }
      const ApplyResult result = store.Apply(changes, kBoot, done + kBatch);
      if (result.status != ApplyStatus::Done) {
        std::printf("refused: %s\n", qPrintable(result.error));
        return 0;
      }
      done += kBatch;
    }
    return static_cast<double>(done) / took.count();
  }
};

}  // namespace
}  // namespace vardell::server

int main(int count, char** arguments) {
  using vardell::server::Bench;
  const int seconds = count > 1 ? std::atoi(arguments[1]) : 5;
  const double plain = Bench::OfPgbench(seconds);
  const double store = Bench::OfStore(seconds);
  std::printf("pgbench, 16 clients: %8.0f upserts a second\n", plain);
  std::printf("store, one client:   %8.0f changes a second\n", store);
  std::printf("ratio:               %8.2f\n", plain > 0 ? store / plain : 0);
}
