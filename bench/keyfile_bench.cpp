// Key files: loaded, turned into text, and asked for values, by the library and by its peers.
// script/bench runs this. A job's name is GROUP/JOB/WHO.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <iomanip>
#include <numeric>
#include <vector>

#include "documents.h"
#include "peers.h"

namespace vutil::bench {
namespace {

// Has `measure` registered under a name. The time that passes counts, with what the kernel does.
template <typename Measure>
benchmark::internal::Benchmark* add(const std::string& job, const char* who, Measure measure) {
  return benchmark::RegisterBenchmark((job + "/" + who).c_str(), measure)->UseRealTime();
}

// What a function gives, called in a child of this process, which stays as it was.
double in_child(const std::function<double()>& function) {
  static auto* const result = static_cast<double*>(
      mmap(nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  require(result != MAP_FAILED, "sharing memory");
  const pid_t child = fork();
  if (child == 0) {
    *result = function();
    _exit(0);
  }
  int status = -1;
  require(waitpid(child, &status, 0) == child && status == 0, "measuring in a process of its own");
  return *result;
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

// By how many bytes `figure` grows when a file is loaded, for each of its keys. That is measured
// before any other document is loaded: its memory would be used again, and not be seen.
template <typename Peer>
void add_memory(const std::string& job, double (*figure)(), std::string (*path)()) {
  const double keys = in_child([=] {
    std::string text;
    require(get_file_contents(path(), text) == 0, "reading the file of a benchmark");
    return static_cast<double>(std::ranges::count(text, '='));
  });
  const double bytes = in_child([=] {
    const double before = figure();
    const Peer document(path());
    return figure() - before;
  });
  const auto show = [=](benchmark::State& state) {
    for (auto _ : state) continue;
    state.counters["bytes"] = bytes / keys;
  };
  add("Memory/" + job, Peer::NAME, show)->Iterations(1)->Repetitions(1);
}

// A document of as many parts as are asked for, each with a number, equally long and in a random
// order.
struct Shape {
  const char *name, *head, *before, *after;
};
constexpr Shape SAME_KEY = {"times the same key", "[a]\n", "k=", "\n"};
constexpr std::array SHAPES = {Shape{"keys of a section", "[a]\n", "number", "=1\n"},
                               Shape{"sections", "", "[number", "]\nk=1\n"}, SAME_KEY,
                               Shape{"escaped markers in a line", "[a]\nk=", "\\#", ""}};

std::string shape_file(const Shape& shape, size_t count) {
  return file(shape.name + std::to_string(count), [&] {
    std::vector<size_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 1'000'000);
    std::ranges::shuffle(numbers, std::mt19937());
    std::string text = shape.head;
    for (const size_t n : numbers) text += shape.before + std::to_string(n) + shape.after;
    return text;
  });
}

void add_memory_jobs() {
  const auto large = [] { return document_file(TEN_MB, Style::IN_ORDER); };
  const auto repeated = [] { return shape_file(SAME_KEY, 1'000'000); };
  for_each_peer([&]<typename Peer>(Is<Peer>) {
    if (copes_with<Peer>(TEN_MB)) {
      add_memory<Peer>("heap per key, 10 MB in order", heap_in_use, large);
      add_memory<Peer>("peak per key, 10 MB in order", peak, large);
    }
    if (!std::is_same_v<Peer, Boost>) {  // it refuses repeated keys
      add_memory<Peer>("peak per line, a key 1,000,000 times", peak, repeated);
    }
  });
}

template <typename Peer>
void load_and_free(benchmark::State& state, const std::string& path) {
  for (auto _ : state) {
    Peer document(path);
    benchmark::DoNotOptimize(&document);
  }
}

void add_construct(const Size& size, Style style) {
  const char* const variant = style == Style::IN_ORDER ? " in order" : " shuffled";
  const std::string job = std::string("Documents/construct, ") + size.name + variant;
  for_each_peer([&]<typename Peer>(Is<Peer>) {
    if (!copes_with<Peer>(size)) return;
    add(job, Peer::NAME,
        [=](benchmark::State& state) { load_and_free<Peer>(state, document_file(size, style)); });
  });
}

// A document that stays loaded until the program ends.
template <typename Peer>
Peer* loaded(const std::string& path) {
  static std::map<std::string, Peer> documents;
  return &documents.try_emplace(path, path).first->second;
}

void add_to_string(const Size& size) {
  for_each_peer([&]<typename Peer>(Is<Peer>) {
    if constexpr (requires(const Peer& peer) { peer.text(); }) {
      if (!copes_with<Peer>(size)) return;
      add(std::string("Documents/toString, ") + size.name, Peer::NAME,
          [=](benchmark::State& state) {
            const Peer* const document = loaded<Peer>(document_file(size, Style::IN_ORDER));
            for (auto _ : state) benchmark::DoNotOptimize(document->text());
          });
    }
  });
}

void add_document_jobs() {
  for (const Style style : {Style::IN_ORDER, Style::SHUFFLED}) {
    for (const Size& size : {ONE_KB, FOUR_KB, HUNDRED_KB, TEN_MB}) add_construct(size, style);
  }
  for (const Size& size : {ONE_KB, HUNDRED_KB, TEN_MB}) add_to_string(size);
}

// What costs the square of its size if it is read without care.
void add_growth_jobs() {
  for (const Shape& shape : SHAPES) {
    for (const size_t count : {10'000, 100'000}) {
      add(std::string("Growth/construct, ") + shape.name, std::to_string(count).c_str(),
          [=](benchmark::State& state) { load_and_free<Ours>(state, shape_file(shape, count)); });
    }
  }
}

template <typename Value>
std::string printed(const Value& value) {
  std::ostringstream stream;
  stream << std::boolalpha << std::setprecision(10) << value;
  return std::move(stream).str();
}
std::string printed(const Glib::Text& value) { return value.get(); }

// Asks for all keys of a type in turn, in a random order.
template <typename Peer, typename Value>
void get_in_turn(benchmark::State& state, size_t keys, Type type) {
  const Document document = draw_document(SIZE_MAX, keys, Style::IN_ORDER);
  Peer* const peer =
      loaded<Peer>(file(std::to_string(keys) + " keys", [&] { return document.text; }));
  std::vector<Name> names;
  for (const auto& [section, entries] : document.sections) {
    for (const auto& [key, text] : entries) {
      if (type_of(text) != type) continue;
      Value value{};
      peer->get(names.emplace_back(section, key), value);
      require(printed(value) == text, Peer::NAME);
    }
  }
  std::ranges::shuffle(names, std::mt19937());
  size_t next = 0;
  for (auto _ : state) {
    Value value{};
    peer->get(names[next], value);
    benchmark::DoNotOptimize(value);
    if (++next == names.size()) next = 0;
  }
}

template <typename T>
void add_getter(const std::string& getter, Type type, const char* variant, size_t keys) {
  for_each_peer([&]<typename Peer>(Is<Peer>) {
    using Value = std::conditional_t<std::is_same_v<T, std::string>, typename Peer::Text, T>;
    add("Getters/" + getter + variant, Peer::NAME,
        [=](benchmark::State& state) { get_in_turn<Peer, Value>(state, keys, type); });
  });
}

void add_getter_jobs() {
  for (const auto& [variant, keys] :
       {std::pair(", one of 30 keys", 30), std::pair(", scattered over 30,000 keys", 30'000)}) {
    add_getter<std::string>("getString", Type::TEXT, variant, keys);
    add_getter<int>("getInteger", Type::INTEGER, variant, keys);
    add_getter<double>("getDouble", Type::DOUBLE, variant, keys);
    add_getter<bool>("getBoolean", Type::BOOLEAN, variant, keys);
  }
}

}  // namespace
}  // namespace vutil::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  vutil::bench::add_memory_jobs();
  vutil::bench::add_document_jobs();
  vutil::bench::add_growth_jobs();
  vutil::bench::add_getter_jobs();
  benchmark::RunSpecifiedBenchmarks();
}
