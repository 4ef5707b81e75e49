// The library beside its peers, and beside a floor: the least that the job takes. script/bench runs
// it and says more.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "groups.h"

namespace vutil::bench {
namespace {

void measure(const std::string& in_memory, const std::string& on_disk,
             const std::string& chart_data, const std::vector<std::string>& words) {
  Suite suite(words);
  measure_memory(suite, in_memory);
  add_documents(suite, in_memory);
  add_large_documents(suite, in_memory);
  add_getters(suite, in_memory);
  add_saves(suite, in_memory, on_disk);
  add_files(suite, in_memory);
  add_descriptors(suite);
  suite.run();
  suite.print_tables();
  suite.print_chart(chart_data);
}

}  // namespace
}  // namespace vutil::bench

// usage: peers_bench DIRECTORY_IN_MEMORY DIRECTORY_ON_DISK CHART_DATA [WORD...]
//
// Measures all jobs, or those whose name holds one of the words, prints the tables and writes what
// the chart is drawn from. Options of Google Benchmark are taken too.
int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc < 4) {
    fprintf(stderr,
            "Usage: peers_bench DIRECTORY_IN_MEMORY DIRECTORY_ON_DISK CHART_DATA [WORD...]\n");
    return 2;
  }
  try {
    vutil::bench::measure(argv[1], argv[2], argv[3], {argv + 4, argv + argc});
  } catch (const std::exception& error) {
    fprintf(stderr, "Failed: %s\n", error.what());
    return 1;
  }
  return 0;
}
