#include "suite.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>

namespace vutil::bench {
namespace {

// Between the job and who does it, in the names under which they are registered.
constexpr char SEPARATOR = '|';

const char* const OURS = "ours";

// What the columns of the tables stand for, in their order; the peers come after the floor.
constexpr std::array COLUMNS = {"floor", "GLib", "SimpleIni", "inih", "iniparser", "Boost"};

// A time in the largest unit of which there is at least one.
std::string with_unit(double value, Unit unit) {
  std::array<char, 32> text{};
  if (unit == Unit::BYTES) {
    snprintf(text.data(), text.size(), "%.3g bytes", value);
  } else if (value >= 1e6) {
    snprintf(text.data(), text.size(), "%.3g ms", value / 1e6);
  } else if (value >= 1e3) {
    snprintf(text.data(), text.size(), "%.3g us", value / 1e3);
  } else {
    snprintf(text.data(), text.size(), "%.3g ns", value);
  }
  return text.data();
}

using Results = std::map<std::string, double>;

std::optional<double> ratio_to(const Results& results, const char* who) {
  const auto ours = results.find(OURS);
  const auto other = results.find(who);
  if (ours == results.end() || other == results.end()) return std::nullopt;
  return ours->second / other->second;
}

// Ours over the best of the peers.
std::optional<double> ratio_to_best_peer(const Results& results) {
  std::optional<double> highest;
  for (const char* const peer : COLUMNS) {
    if (peer == COLUMNS.front()) continue;
    const auto ratio = ratio_to(results, peer);
    if (ratio && (!highest || *ratio > *highest)) highest = ratio;
  }
  return highest;
}

}  // namespace

// Takes down the result of each repetition.
class Suite::Reporter : public benchmark::BenchmarkReporter {
 public:
  explicit Reporter(Suite& suite) : suite_(suite) {}

  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const std::string& name = run.run_name.function_name;
      const size_t separator = name.find(SEPARATOR);
      suite_.record(name.substr(0, separator), name.substr(separator + 1),
                    run.GetAdjustedRealTime());
    }
  }

 private:
  Suite& suite_;
};

bool Suite::begin_job(const std::string& name, Unit unit) {
  const auto is_in_name = [&](const std::string& word) {
    return name.find(word) != std::string::npos;
  };
  if (!words_.empty() && std::none_of(words_.begin(), words_.end(), is_in_name)) return false;
  groups_.back().jobs.push_back({name, unit, {}});
  current_job_ = name;
  return true;
}

void Suite::add_measured(const std::string& who,
                         const std::function<void(benchmark::State&)>& measure) {
  const std::string name = current_job_ + SEPARATOR + who;
  benchmark::RegisterBenchmark(name.c_str(), measure)->UseRealTime();
  has_timed_jobs_ = true;
}

// The least of the results: what else the machine does only ever adds to a time.
void Suite::record(const std::string& job, const std::string& who, double result) {
  for (Group& group : groups_) {
    for (Job& candidate : group.jobs) {
      if (candidate.name != job) continue;
      const auto [entry, is_first] = candidate.results.try_emplace(who, result);
      entry->second = std::min(entry->second, result);
    }
  }
}

void Suite::run() {
  if (!has_timed_jobs_) return;
  Reporter reporter(*this);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
}

void Suite::print_tables() const {
  for (const Group& group : groups_) {
    if (!group.jobs.empty()) print_table(group);
  }
}

// Only with the columns that some job of the group has a result for.
void Suite::print_table(const Group& group) {
  std::vector<const char*> columns;
  const auto is_used = [&](const char* column) {
    return std::any_of(group.jobs.begin(), group.jobs.end(),
                       [&](const Job& job) { return job.results.count(column) > 0; });
  };
  std::copy_if(COLUMNS.begin(), COLUMNS.end(), std::back_inserter(columns), is_used);

  printf("\n## %s\n\n| job | ours |", group.title.c_str());
  for (const char* const column : columns) printf(" to %s |", column);
  printf("\n| --- | ---: |");
  for (size_t n = 0; n < columns.size(); ++n) printf(" ---: |");
  printf("\n");
  for (const Job& job : group.jobs) {
    const std::string ours = with_unit(job.results.at(OURS), job.unit);
    printf("| %s | %s |", job.name.c_str(), ours.c_str());
    for (const char* const column : columns) {
      const auto ratio = ratio_to(job.results, column);
      ratio ? printf(" %.2f |", *ratio) : printf(" |");
    }
    printf("\n");
  }
}

void Suite::print_chart(const std::string& path) const {
  std::ofstream out(path);
  int row = 0;
  for (const Group& group : groups_) {
    bool has_title = false;
    for (const Job& job : group.jobs) {
      const auto ratio = ratio_to_best_peer(job.results);
      if (!ratio) continue;
      if (!has_title) out << ++row << '\t' << group.title << "\t\t\n";
      has_title = true;
      out << ++row << "\t\t" << job.name << '\t' << *ratio << '\n';
    }
  }
  require(out.flush().good(), "writing the data of the chart");
}

}  // namespace vutil::bench
