// The key files that the benchmarks read.
#ifndef VUTIL_BENCH_DOCUMENTS_H_
#define VUTIL_BENCH_DOCUMENTS_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vutil::bench {

constexpr unsigned int MODE = 0640;

// Writes the file of a benchmark.
void put(const std::string& path, std::string_view contents);

struct Size {
  const char* name;
  size_t bytes;
};
constexpr Size SMALL = {"1 KB", 1'000};
constexpr Size MEDIUM = {"100 KB", 100'000};
constexpr Size LARGE = {"10 MB", 10'000'000};
constexpr Size HUGE_SIZE = {"100 MB", 100'000'000};

constexpr size_t KEYS_PER_SECTION = 100;

// The names of the n-th key of a document.
std::string section_name(size_t n);
std::string key_name(size_t n);

// 0 to `count`, in the same random order on every run.
std::vector<size_t> shuffled(size_t count);

// A document of `keys` keys in byte order, as a save leaves it: every fourth value is text, a whole
// number, a real number, a truth value.
std::string ordered_document(size_t keys);

// The same keys as an engineer leaves them: sections and keys in no order, with comments, blank
// lines and spaces around the separator.
std::string shuffled_document(size_t keys);

// How many keys make an ordered document of about `bytes` bytes.
size_t keys_for(size_t bytes);

// Documents that cost the square of `count` if they are read without care: one value with so many
// escaped comment markers, one section with so many keys in no order, so many sections in no order,
// one key so many times.
std::string escaped_document(size_t count);
std::string keys_document(size_t count);
std::string sections_document(size_t count);
std::string same_key_document(size_t count);

}  // namespace vutil::bench

#endif  // VUTIL_BENCH_DOCUMENTS_H_
