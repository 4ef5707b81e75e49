// Turns the runs of the benchmarks into one table of ratios.
#ifndef VUTIL_BENCH_TABLE_H_
#define VUTIL_BENCH_TABLE_H_

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace vutil::bench {

// Between the job and the contestant in a benchmark's name.
constexpr char NAME_SEPARATOR = '|';

// Collects the repetitions of each benchmark, and prints a row for each job at the end: the
// library's time (the best of the repetitions), and its ratio to that of each peer.
class RatioTable : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

 private:
  using Times = std::map<std::string, std::vector<double>>;  // contestant to nanoseconds

  std::vector<std::string> jobs_;  // in the order of their first run
  std::map<std::string, Times> times_;
};

}  // namespace vutil::bench

#endif  // VUTIL_BENCH_TABLE_H_
