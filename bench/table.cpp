#include "table.h"

#include <algorithm>
#include <cstdio>

namespace vutil::bench {
namespace {

const char* const PEERS[] = {"floor", "GLib", "SimpleIni", "inih"};

// The least of the repetitions: what else the machine does only ever adds to a time.
double best(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

std::string with_unit(double nanoseconds) {
  struct Unit {
    double nanoseconds;
    const char* name;
  };
  char text[32];
  for (const Unit& unit : {Unit{1e9, "s"}, Unit{1e6, "ms"}, Unit{1e3, "us"}, Unit{1, "ns"}}) {
    if (nanoseconds < unit.nanoseconds && unit.nanoseconds > 1) continue;
    snprintf(text, sizeof(text), "%.3g %s", nanoseconds / unit.nanoseconds, unit.name);
    break;
  }
  return text;
}

}  // namespace

bool RatioTable::ReportContext(const Context&) { return true; }

void RatioTable::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    if (run.run_type != Run::RT_Iteration) continue;
    if (run.error_occurred) {
      fprintf(stderr, "%s: %s\n", run.run_name.function_name.c_str(), run.error_message.c_str());
      continue;
    }
    const std::string& name = run.run_name.function_name;
    const size_t separator = name.find(NAME_SEPARATOR);
    const std::string job = name.substr(0, separator);
    if (times_.find(job) == times_.end()) jobs_.push_back(job);
    times_[job][name.substr(separator + 1)].push_back(run.GetAdjustedRealTime());
    fprintf(stderr, ".");
  }
}

// The order of the runs is random: the rows come in the order of the jobs' names, which begin with
// a number for this.
void RatioTable::Finalize() {
  std::sort(jobs_.begin(), jobs_.end());
  printf("\n| Job | Time | to floor | to GLib | to SimpleIni | to inih |\n");
  printf("| --- | ---: | ---: | ---: | ---: | ---: |\n");
  for (const std::string& job : jobs_) {
    Times& times = times_[job];
    if (times["ours"].empty()) continue;
    const double ours = best(times["ours"]);
    printf("| %s | %s |", job.substr(job.find(' ') + 1).c_str(), with_unit(ours).c_str());
    for (const char* const peer : PEERS) {
      if (times[peer].empty()) {
        printf(" |");
      } else {
        printf(" %.2f |", ours / best(times[peer]));
      }
    }
    printf("\n");
  }
}

}  // namespace vutil::bench
