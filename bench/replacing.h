// Other ways than the library's to replace a file durably.
#ifndef VUTIL_BENCH_REPLACING_H_
#define VUTIL_BENCH_REPLACING_H_

#include <string>
#include <string_view>

namespace vutil::bench {

// The library's system calls, with nothing around them.
void replace_file_with_bare_calls(const std::string& path, const std::string& directory,
                                  std::string_view contents);

void replace_file_with_glib(const std::string& path, std::string_view contents);

}  // namespace vutil::bench

#endif  // VUTIL_BENCH_REPLACING_H_
