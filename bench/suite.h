// The jobs that are measured, and the tables that come of them.
#ifndef VUTIL_BENCH_SUITE_H_
#define VUTIL_BENCH_SUITE_H_

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vutil::bench {

// Ends the program when a job has not been done: its time would mean nothing.
inline void require(bool done, const char* what) {
  if (done) return;
  fprintf(stderr, "Failed: %s\n", what);
  exit(1);
}

enum class Unit { NANOSECONDS, BYTES };

// Groups of jobs, and for each job the results of those that do it: "ours", the "floor", the peers.
class Suite {
 public:
  // Only jobs whose name holds one of `words`, or all if there are none.
  explicit Suite(std::vector<std::string> words) : words_(std::move(words)) {}

  // The jobs that follow belong to this group.
  void begin_group(const std::string& title) { groups_.push_back({title, {}}); }

  // What is added and recorded from here on belongs to this job. False if it is left out: nothing
  // need be prepared for it then.
  bool begin_job(const std::string& name, Unit unit = Unit::NANOSECONDS);

  // Has `body` timed as what `who` does for the job.
  template <typename Body>
  void add(const std::string& who, Body body);

  // The same, where each iteration needs something that `prepare` makes outside the timed part.
  template <typename Prepare, typename Body>
  void add_prepared(const std::string& who, Prepare prepare, Body body);

  // Notes a result of the job; the least one counts.
  void record(const std::string& who, double result) { record(current_job_, who, result); }

  // Times what was added, each several times and in turns with the others.
  void run();

  // A table for each group: ours, and its ratio to the others.
  void print_tables() const;

  // What the chart is drawn from: a line for each title of a group and for each job that a peer
  // does too, with a number, the title or nothing, the job or nothing, and ours over the best of
  // the peers.
  void print_chart(const std::string& path) const;

 private:
  struct Job {
    std::string name;
    Unit unit;
    std::map<std::string, double> results;
  };
  struct Group {
    std::string title;
    std::vector<Job> jobs;
  };
  class Reporter;

  void add_measured(const std::string& who, const std::function<void(benchmark::State&)>& measure);
  void record(const std::string& job, const std::string& who, double result);
  static void print_table(const Group& group);

  std::vector<std::string> words_;
  std::vector<Group> groups_;
  std::string current_job_;
  bool has_timed_jobs_ = false;
};

template <typename Body>
void Suite::add(const std::string& who, Body body) {
  add_measured(who, [body](benchmark::State& state) mutable {
    for (auto _ : state) body();
  });
}

template <typename Prepare, typename Body>
void Suite::add_prepared(const std::string& who, Prepare prepare, Body body) {
  add_measured(who, [prepare, body](benchmark::State& state) mutable {
    for (auto _ : state) {
      state.PauseTiming();
      auto prepared = prepare();
      state.ResumeTiming();
      body(prepared);
      state.PauseTiming();
      prepared = {};
      state.ResumeTiming();
    }
  });
}

}  // namespace vutil::bench

#endif  // VUTIL_BENCH_SUITE_H_
