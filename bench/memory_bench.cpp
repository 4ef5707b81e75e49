// The memory that documents take, each read in a process of its own.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>

#include "documents.h"
#include "groups.h"
#include "peers.h"
#include "vutil/keyfile.h"

namespace vutil::bench {
namespace {

// What a function gives, called in a child of this process, which stays as it was.
double in_child(const std::function<double()>& function) {
  std::array<int, 2> ends{};
  require(pipe(ends.data()) == 0, "opening a pipe");
  const auto [out, in] = ends;
  const pid_t child = fork();
  require(child >= 0, "starting a process");
  double result = 0;
  if (child == 0) {
    result = function();
    _exit(write(in, &result, sizeof(result)) == sizeof(result) ? 0 : 1);
  }
  int status = 0;
  require(waitpid(child, &status, 0) == child && status == 0 &&
              read(out, &result, sizeof(result)) == sizeof(result),
          "measuring in a process of its own");
  close(in);
  close(out);
  return result;
}

// Bytes in use of all that malloc has handed out, with its own headers.
double heap_in_use() {
  const struct mallinfo2 heap = mallinfo2();
  return static_cast<double>(heap.uordblks + heap.hblkhd);
}

// The most memory that the process ever had resident at once, in bytes.
double peak() {
  rusage usage = {};
  require(getrusage(RUSAGE_SELF, &usage) == 0, "asking for the peak");
  return 1024.0 * static_cast<double>(usage.ru_maxrss);
}

// By how much a figure has grown when `load` has read the file at `path`, for each of its keys.
template <typename Load>
double growth(double (*figure)(), const std::string& path, Load load, size_t keys) {
  return in_child([&] {
    const double before = figure();
    const auto document = load(path);
    return (figure() - before) / static_cast<double>(keys);
  });
}

void measure(Suite& suite, const std::string& job, double (*figure)(), const std::string& directory,
             const Size& size) {
  if (!suite.begin_job(job + ", " + size.name + " in order", Unit::BYTES)) return;
  const std::string path = directory + "/memory";
  const size_t keys = keys_for(size.bytes);
  in_child([&] {
    put(path, ordered_document(keys));
    return 0;
  });
  const auto load_ours = [](const std::string& file) { return KeyFile(file, MODE); };
  suite.record("ours", growth(figure, path, load_ours, keys));
  suite.record("GLib", growth(figure, path, load_glib, keys));
  suite.record("SimpleIni", growth(figure, path, load_simpleini, keys));
  suite.record("inih", growth(figure, path, load_inih, keys));
  if (iniparser_copes_with(size)) {
    suite.record("iniparser", growth(figure, path, load_iniparser, keys));
  }
  suite.record("Boost", growth(figure, path, load_boost, keys));
}

}  // namespace

void measure_memory(Suite& suite, const std::string& directory) {
  suite.begin_group("Memory");
  measure(suite, "heap per key", heap_in_use, directory, MEDIUM);
  measure(suite, "heap per key", heap_in_use, directory, LARGE);
  measure(suite, "peak per key while loading", peak, directory, LARGE);
}

}  // namespace vutil::bench
