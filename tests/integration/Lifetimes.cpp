#include "tests/integration/Lifetimes.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>

namespace vardell::test {
namespace {

// Waits in a thread of its own, so that an end is seen at once whatever else is done.
Clock::time_point EndOf(int pidfd) {
  (void)WaitForExit(pidfd, 1h);
  const Clock::time_point now = Clock::now();
  close(pidfd);
  return now;
}

bool IsReady(const std::shared_future<Clock::time_point>& ended) {
  return ended.wait_for(0s) == std::future_status::ready;
}

}  // namespace

double UnionOf(std::vector<Span> spans) {
  std::sort(spans.begin(), spans.end(),
            [](const Span& one, const Span& other) { return one.began < other.began; });
  double total = 0;
  double until = spans.empty() ? 0 : spans.front().began;
  for (const Span& span : spans) {
    total += std::max(0.0, span.ended - std::max(span.began, until));
    until = std::max(until, span.ended);
  }
  return total;
}

StallMeter::StallMeter(const std::string& path)
    : thread_([this, path] {
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        while (!stop_) {
          const auto began = Clock::now();
          poll(nullptr, 0, 10);
          (void)!pwrite(file, "stall", 5, 0);
          (void)fdatasync(file);
          const auto late =
              std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began - 10ms);
          longest_ = std::max<std::int64_t>(longest_, late.count());
        }
        close(file);
      }) {}

StallMeter::~StallMeter() {
  stop_ = true;
  thread_.join();
}

std::chrono::milliseconds StallMeter::Longest() const {
  return std::chrono::milliseconds(longest_);
}

Lifetimes::Lifetimes(World& world, int secondMs) : world_(world), secondMs_(secondMs) {}

double Lifetimes::SecondOf(Clock::time_point moment) const {
  return std::chrono::duration<double, std::milli>(moment - zero_).count() / secondMs_;
}

double Lifetimes::Now() const {
  return SecondOf(Clock::now());
}

void Lifetimes::At(double second, std::function<void()> action) {
  plan_.emplace(second, std::move(action));
}

void Lifetimes::Live(const std::string& identifier, double second, double length) {
  At(second, [this, identifier, length] {
    const std::size_t life = Launch(identifier);
    At(lives_[life].began + length, [this, life] {
      if (!IsReady(lives_[life].ended)) Signal(life, SIGKILL);
    });
  });
}

std::size_t Lifetimes::Launch(const std::string& identifier) {
  Life& life = lives_.emplace_back();
  life.identifier = identifier;
  life.began = Now();
  life.program = world_.Launch(identifier, {"infinity"});
  life.ended = std::async(std::launch::async, EndOf, dup(life.program.pidfd())).share();
  return lives_.size() - 1;
}

bool Lifetimes::Run(double grace) {
  while (!plan_.empty()) {
    const double wait = (plan_.begin()->first - Now()) * secondMs_;
    if (wait > 0) {
      poll(nullptr, 0, static_cast<int>(wait) + 1);
      continue;
    }
    auto due = plan_.extract(plan_.begin());
    due.mapped()();
  }
  const auto deadline = Clock::now() + std::chrono::milliseconds(int(grace * secondMs_));
  return std::all_of(lives_.begin(), lives_.end(), [&](const Life& life) {
    return life.ended.wait_until(deadline) == std::future_status::ready;
  });
}

Span Lifetimes::SpanOf(std::size_t life) {
  return {lives_[life].began, SecondOf(lives_[life].ended.get())};
}

std::map<std::string, std::vector<Span>> Lifetimes::Spans() {
  std::map<std::string, std::vector<Span>> spans;
  for (std::size_t i = 0; i < lives_.size(); ++i) {
    if (IsReady(lives_[i].ended)) spans[lives_[i].identifier].push_back(SpanOf(i));
  }
  return spans;
}

std::map<std::string, Booked> ReadLedger(World& world) {
  const Finished finished = world.Ctl({"ledger", world.user(), "--json"});
  const QJsonDocument json = QJsonDocument::fromJson(finished.output.toUtf8());
  std::map<std::string, Booked> booked;
  for (const QJsonValue row : json[QLatin1String("rows")].toArray()) {
    const int used = row[QLatin1String("used")].toInt();
    Booked& of = booked[row[QLatin1String("identifier")].toString().toStdString()];
    of.used += used;
    if (row[QLatin1String("source")].toString() == QLatin1String("grace")) of.grace += used;
  }
  return booked;
}

}  // namespace vardell::test
