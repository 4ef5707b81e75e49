// The groups of jobs. Each function adds its own to the suite; files go into `directory`, which is
// on tmpfs unless the parameters say otherwise.
#ifndef VUTIL_BENCH_GROUPS_H_
#define VUTIL_BENCH_GROUPS_H_

#include <string>

#include "suite.h"

namespace vutil::bench {

// Measures at once, so it must come first: what was freed earlier would distort the figures.
void measure_memory(Suite& suite, const std::string& directory);

void add_documents(Suite& suite, const std::string& directory);
void add_large_documents(Suite& suite, const std::string& directory);
void add_getters(Suite& suite, const std::string& directory);
void add_saves(Suite& suite, const std::string& directory, const std::string& directory_on_disk);
void add_files(Suite& suite, const std::string& directory);
void add_descriptors(Suite& suite);

}  // namespace vutil::bench

#endif  // VUTIL_BENCH_GROUPS_H_
