// Programs whose lives are measured from outside: from the moment that one is launched to the
// moment that its pidfd tells its end. Times are in seconds of enforcement, as floating-point
// numbers.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/integration/World.h"

namespace vardell::test {

struct Span {
  double began = 0;
  double ended = 0;

  double Length() const { return ended - began; }
};

// How long spans last together; where they overlap, once.
double UnionOf(std::vector<Span> spans);

// What a machine that is busy with other things takes away: how long a thread that wants to run
// every few milliseconds, and to sync a small file then, had to wait at worst.
class StallMeter {
 public:
  explicit StallMeter(const std::string& path);
  ~StallMeter();
  std::chrono::milliseconds Longest() const;

 private:
  std::atomic<std::int64_t> longest_ = 0;  // milliseconds
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

class Lifetimes {
 public:
  Lifetimes(World& world, int secondMs);

  double Now() const;

  // A plan, carried out by Run in the order of its times.
  void At(double second, std::function<void()> action);
  // A life of `identifier` from then on; the program is killed after `length`, where it still runs.
  void Live(const std::string& identifier, double second, double length);

  // Launches now. The number is for Signal and SpanOf.
  std::size_t Launch(const std::string& identifier);
  void Signal(std::size_t life, int number) { lives_[life].program.Signal(number); }
  // Carries the plan out and waits for the end of every life, at most `grace` seconds after the
  // last thing planned. False where one does not end.
  [[nodiscard]] bool Run(double grace = 10);

  // Of those that have ended.
  Span SpanOf(std::size_t life);
  std::map<std::string, std::vector<Span>> Spans();

 private:
  struct Life {
    std::string identifier;
    double began = 0;
    Program program;
    std::shared_future<Clock::time_point> ended;
  };

  double SecondOf(Clock::time_point moment) const;

  World& world_;
  const double secondMs_;
  const Clock::time_point zero_ = Clock::now();
  std::multimap<double, std::function<void()>> plan_;
  std::deque<Life> lives_;
};

// What the Server's ledger says was used of each identifier, in minutes, the free ones included.
struct Booked {
  int used = 0;
  int grace = 0;
};
std::map<std::string, Booked> ReadLedger(World& world);

}  // namespace vardell::test
