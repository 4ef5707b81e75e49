// The key files that the benchmarks read.
#ifndef VUTIL_BENCH_DOCUMENTS_H_
#define VUTIL_BENCH_DOCUMENTS_H_

#include <cstddef>
#include <string>

namespace vutil::bench {

constexpr size_t KEYS_PER_SECTION = 100;

// The names of the n-th key of a document.
std::string section_name(size_t n);
std::string key_name(size_t n);

// A document of `keys` keys in byte order, as a save leaves it: every fourth value is text, a whole
// number, a real number, a truth value.
std::string ordered_document(size_t keys);

// The same keys as an engineer leaves them: sections and keys in no order, with comments, blank
// lines and spaces around the separator.
std::string shuffled_document(size_t keys);

// How many keys make an ordered document of about `bytes` bytes.
size_t keys_for(size_t bytes);

// A document with one value of `count` escaped comment markers.
std::string escaped_document(size_t count);

}  // namespace vutil::bench

#endif  // VUTIL_BENCH_DOCUMENTS_H_
