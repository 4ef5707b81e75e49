// The library beside its peers and beside a floor: the least that the standard library or the
// system calls take for the same job. script/bench runs it.
#include <INIReader.h>
#include <SimpleIni.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <glib.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "documents.h"
#include "table.h"
#include "vutil/io.h"
#include "vutil/keyfile.h"

namespace vutil::bench {
namespace {

using namespace std::chrono_literals;

constexpr unsigned int MODE = 0640;

// Ends the program when a contestant has not done its job: its time would mean nothing.
void require(bool done, const char* what) {
  if (done) return;
  fprintf(stderr, "Failed: %s\n", what);
  exit(1);
}

// Registers `body` as what `contestant` does in an iteration of `job`.
template <typename Body>
void add(const std::string& job, const std::string& contestant, Body body) {
  benchmark::RegisterBenchmark((job + NAME_SEPARATOR + contestant).c_str(),
                               [body](benchmark::State& state) mutable {
                                 for (auto _ : state) body();
                               });
}

// The number in front makes the table's order.
std::string job_name(const std::string& what, const std::string& variant) {
  static int number = 100;
  return std::to_string(++number) + " " + what + ", " + variant;
}

void put(const std::string& path, std::string_view contents) {
  require(set_file_contents(path, contents, MODE) == 0, "writing a benchmark's file");
}

struct GKeyFileDeleter {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using GKeyFilePointer = std::unique_ptr<GKeyFile, GKeyFileDeleter>;

GKeyFilePointer load_glib(const std::string& path) {
  GKeyFilePointer file(g_key_file_new());
  require(g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr) != 0,
          "loading with GLib");
  return file;
}

std::unique_ptr<CSimpleIniCaseA> load_simpleini(const std::string& path) {
  auto file = std::make_unique<CSimpleIniCaseA>();
  require(file->LoadFile(path.c_str()) == SI_OK, "loading with SimpleIni");
  return file;
}

std::unique_ptr<INIReader> load_inih(const std::string& path) {
  auto file = std::make_unique<INIReader>(path);
  require(file->ParseError() == 0, "loading with inih");
  return file;
}

struct Size {
  const char* name;
  size_t bytes;
};
constexpr Size SMALL = {"1 KB", 1'000};
constexpr Size MEDIUM = {"100 KB", 100'000};
constexpr Size LARGE = {"10 MB", 10'000'000};
constexpr Size HUGE_SIZE = {"100 MB", 100'000'000};

// Bytes of the heap in use.
size_t heap_in_use() {
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

// The heap that what `load` gives holds on to, in bytes for each byte of the file at `path`.
template <typename Load>
double memory_of(const std::string& path, Load load) {
  const size_t before = heap_in_use();
  const auto document = load(path);
  struct stat status = {};
  require(stat(path.c_str(), &status) == 0, "asking for a file's size");
  return static_cast<double>(heap_in_use() - before) / static_cast<double>(status.st_size);
}

void print_memory(const std::string& folder) {
  printf("\n| Heap bytes for each byte of the file | ours | GLib | SimpleIni | inih |\n");
  printf("| --- | ---: | ---: | ---: | ---: |\n");
  for (const auto& [size, bytes] : {MEDIUM, LARGE, HUGE_SIZE}) {
    const std::string path = folder + "/document";
    put(path, ordered_document(keys_for(bytes)));
    const auto load_ours = [](const std::string& file) { return KeyFile(file, MODE); };
    printf("| %s in order | %.1f | %.1f | %.1f | %.1f |\n", size, memory_of(path, load_ours),
           memory_of(path, load_glib), memory_of(path, load_simpleini), memory_of(path, load_inih));
  }
}

void add_documents(const std::string& folder) {
  for (const auto& [size, bytes] : {SMALL, MEDIUM, LARGE}) {
    const size_t keys = keys_for(bytes);
    for (const bool ordered : {true, false}) {
      const std::string variant = std::string(size) + (ordered ? " in order" : " shuffled");
      const std::string path = folder + "/" + variant;
      put(path, ordered ? ordered_document(keys) : shuffled_document(keys));
      const auto job = job_name("construct", variant);
      add(job, "ours", [path] { benchmark::DoNotOptimize(KeyFile(path, MODE)); });
      add(job, "GLib", [path] { benchmark::DoNotOptimize(load_glib(path)); });
      add(job, "SimpleIni", [path] { benchmark::DoNotOptimize(load_simpleini(path)); });
      add(job, "inih", [path] { benchmark::DoNotOptimize(load_inih(path)); });
    }
    const std::string path = folder + "/" + size + " in order";
    const auto job = job_name("toString", size);
    add(job, "ours", [file = std::make_shared<KeyFile>(path, MODE)] {
      benchmark::DoNotOptimize(file->toString());
    });
    add(job, "GLib", [file = std::shared_ptr<GKeyFile>(load_glib(path))] {
      gchar* const text = g_key_file_to_data(file.get(), nullptr, nullptr);
      benchmark::DoNotOptimize(text);
      g_free(text);
    });
    add(job, "SimpleIni", [file = std::shared_ptr(load_simpleini(path))] {
      std::string text;
      require(file->Save(text) == SI_OK, "saving with SimpleIni");
      benchmark::DoNotOptimize(text);
    });
  }
  const std::string huge_path = folder + "/" + HUGE_SIZE.name;
  put(huge_path, ordered_document(keys_for(HUGE_SIZE.bytes)));
  add(job_name("construct", std::string(HUGE_SIZE.name) + " in order"), "ours",
      [huge_path] { benchmark::DoNotOptimize(KeyFile(huge_path, MODE)); });
  for (const size_t count : {10'000u, 80'000u}) {
    const std::string path = folder + "/escaped " + std::to_string(count);
    put(path, escaped_document(count));
    add(job_name("construct", std::to_string(count) + " escaped markers in a line"), "ours",
        [path] { benchmark::DoNotOptimize(KeyFile(path, MODE)); });
  }
}

// The floor of the getters: a lookup in the same maps, and the conversion.
using Maps = std::map<std::string, std::map<std::string, std::string>>;

void add_getters(const std::string& folder) {
  for (const size_t keys : {30u, 30'000u}) {
    const std::string path = folder + "/" + std::to_string(keys) + " keys";
    put(path, ordered_document(keys));
    auto ours = std::make_shared<KeyFile>(path, MODE);
    const std::shared_ptr<GKeyFile> glib(load_glib(path));
    const std::shared_ptr<CSimpleIniCaseA> simpleini = load_simpleini(path);
    const std::shared_ptr<INIReader> inih = load_inih(path);
    auto maps = std::make_shared<Maps>();
    for (size_t n = 0; n < keys; ++n) {
      std::string& text = (*maps)[section_name(n)][key_name(n)];
      require(ours->getString(section_name(n), key_name(n), text, ""), "filling the maps");
    }
    const size_t first = keys / 2 / 4 * 4;  // of four keys with a value of each type
    const std::string s = section_name(first);
    const std::string variant = "one of " + std::to_string(keys) + " keys";

    auto job = job_name("getString", variant);
    std::string k = key_name(first);
    add(job, "ours", [ours, s, k, value = std::string()]() mutable {
      require(ours->getString(s, k, value, ""), "getString");
    });
    add(job, "floor", [maps, s, k, value = std::string()]() mutable {
      value = maps->find(s)->second.find(k)->second;
      benchmark::DoNotOptimize(value);
    });
    add(job, "GLib", [glib, s, k] {
      gchar* const value = g_key_file_get_string(glib.get(), s.c_str(), k.c_str(), nullptr);
      require(value != nullptr, "getting with GLib");
      g_free(value);
    });
    add(job, "SimpleIni", [simpleini, s, k, value = std::string()]() mutable {
      value = simpleini->GetValue(s.c_str(), k.c_str());
      benchmark::DoNotOptimize(value);
    });
    add(job, "inih", [inih, s, k] { benchmark::DoNotOptimize(inih->Get(s, k, "")); });

    job = job_name("getInteger", variant);
    k = key_name(first + 1);
    add(job, "ours", [ours, s, k] {
      int value = 0;
      require(ours->getInteger(s, k, value, 0), "getInteger");
    });
    add(job, "floor", [maps, s, k] {
      const std::string& text = maps->find(s)->second.find(k)->second;
      int value = 0;
      std::from_chars(text.data(), text.data() + text.size(), value);
      benchmark::DoNotOptimize(value);
    });
    add(job, "GLib", [glib, s, k] {
      benchmark::DoNotOptimize(g_key_file_get_integer(glib.get(), s.c_str(), k.c_str(), nullptr));
    });
    add(job, "SimpleIni", [simpleini, s, k] {
      benchmark::DoNotOptimize(simpleini->GetLongValue(s.c_str(), k.c_str()));
    });
    add(job, "inih", [inih, s, k] { benchmark::DoNotOptimize(inih->GetInteger(s, k, 0)); });

    job = job_name("getDouble", variant);
    k = key_name(first + 2);
    add(job, "ours", [ours, s, k] {
      double value = 0;
      require(ours->getDouble(s, k, value, 0), "getDouble");
    });
    add(job, "floor", [maps, s, k] {
      benchmark::DoNotOptimize(std::stod(maps->find(s)->second.find(k)->second));
    });
    add(job, "GLib", [glib, s, k] {
      benchmark::DoNotOptimize(g_key_file_get_double(glib.get(), s.c_str(), k.c_str(), nullptr));
    });
    add(job, "SimpleIni", [simpleini, s, k] {
      benchmark::DoNotOptimize(simpleini->GetDoubleValue(s.c_str(), k.c_str()));
    });
    add(job, "inih", [inih, s, k] { benchmark::DoNotOptimize(inih->GetReal(s, k, 0)); });

    job = job_name("getBoolean", variant);
    k = key_name(first + 3);
    add(job, "ours", [ours, s, k] {
      bool value = false;
      require(ours->getBoolean(s, k, value, false), "getBoolean");
    });
    add(job, "floor", [maps, s, k] {
      std::string text = maps->find(s)->second.find(k)->second;
      for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
      benchmark::DoNotOptimize(text == "TRUE" || text == "FALSE");
    });
    add(job, "GLib", [glib, s, k] {
      benchmark::DoNotOptimize(g_key_file_get_boolean(glib.get(), s.c_str(), k.c_str(), nullptr));
    });
    add(job, "SimpleIni", [simpleini, s, k] {
      benchmark::DoNotOptimize(simpleini->GetBoolValue(s.c_str(), k.c_str()));
    });
    add(job, "inih", [inih, s, k] { benchmark::DoNotOptimize(inih->GetBoolean(s, k, false)); });
  }
}

// The system calls of a durable replacement, and nothing else.
void replace_file(const char* path, const char* tmp_path, const char* folder,
                  std::string_view contents) {
  unlink(tmp_path);
  const int fd = open(tmp_path, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, MODE);
  require(write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size()) &&
              fsync(fd) == 0 && chmod(tmp_path, MODE) == 0,
          "the floor's writing");
  close(fd);
  require(chmod(tmp_path, MODE) == 0 && rename(tmp_path, path) == 0, "the floor's renaming");
  const int folder_fd = open(folder, O_RDONLY | O_CLOEXEC);
  require(fsync(folder_fd) == 0, "the floor's flushing");
  close(folder_fd);
}

void replace_file_with_glib(const std::string& path, std::string_view contents) {
  constexpr auto FLAGS = static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT |
                                                            G_FILE_SET_CONTENTS_DURABLE);
  require(g_file_set_contents_full(path.c_str(), contents.data(),
                                   static_cast<gssize>(contents.size()), FLAGS, MODE, nullptr) != 0,
          "writing with GLib");
}

// Adds the floor and GLib for replacing `path` by `contents`.
void add_replacing(const std::string& job, const std::string& path, const std::string& folder,
                   const std::string& contents) {
  add(job, "floor", [path, tmp_path = path + ".floor", folder, contents] {
    replace_file(path.c_str(), tmp_path.c_str(), folder.c_str(), contents);
  });
  add(job, "GLib", [path, contents] { replace_file_with_glib(path, contents); });
}

void add_saves(const std::string& folder, const std::string& place) {
  for (const auto& [size, bytes] : {SMALL, MEDIUM}) {
    const std::string variant = std::string(size) + " " + place;
    const std::string path = folder + "/saved " + size;
    put(path, ordered_document(keys_for(bytes)));
    auto ours = std::make_shared<KeyFile>(path, MODE);
    const std::string s = section_name(1);
    const std::string k = key_name(1);
    auto job = job_name("set and save", variant);
    add(job, "ours", [ours, s, k, n = 0]() mutable {
      require(ours->setInteger(s, k, ++n % 1000), "setInteger");
    });
    add(job, "floor", [path, tmp_path = path + ".floor", folder, text = ours->toString()] {
      replace_file(path.c_str(), tmp_path.c_str(), folder.c_str(), text);
    });
    add(job, "GLib",
        [glib = std::shared_ptr<GKeyFile>(load_glib(path)), path, s, k, n = 0]() mutable {
          g_key_file_set_integer(glib.get(), s.c_str(), k.c_str(), ++n % 1000);
          gsize length = 0;
          gchar* const text = g_key_file_to_data(glib.get(), &length, nullptr);
          replace_file_with_glib(path, {text, length});
          g_free(text);
        });
    job = job_name("write", variant);
    add(job, "ours", [ours] { ours->write(); });
    add_replacing(job, path, folder, ours->toString());
  }
}

void add_files(const std::string& folder) {
  for (const auto& [size, bytes] : {SMALL, Size{"1 MB", 1'000'000}}) {
    const std::string contents(bytes, 'x');
    const std::string path = folder + "/file " + size;
    put(path, contents);
    auto job = job_name("get_file_contents", size);
    add(job, "ours", [path] {
      std::string text;
      require(get_file_contents(path, text) == 0, "get_file_contents");
    });
    add(job, "floor", [path] {
      const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      const off_t end = lseek(fd, 0, SEEK_END);
      lseek(fd, 0, SEEK_SET);
      std::string text(static_cast<size_t>(end), '\0');
      require(read(fd, text.data(), text.size()) == end, "the floor's reading");
      close(fd);
    });
    add(job, "GLib", [path] {
      gchar* text = nullptr;
      gsize length = 0;
      require(g_file_get_contents(path.c_str(), &text, &length, nullptr) != 0, "reading with GLib");
      g_free(text);
    });
    job = job_name("set_file_contents", std::string(size) + " on tmpfs");
    add(job, "ours", [path, contents] { put(path, contents); });
    add_replacing(job, path, folder, contents);
  }
}

// Sends a byte and a copy of standard input.
void send_descriptor(int socket) {
  char byte = 'x';
  iovec entry = {&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control = {};
  msghdr message = {};
  message.msg_iov = &entry;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  *header = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
  memset(CMSG_DATA(header), 0, sizeof(int));
  require(sendmsg(socket, &message, 0) == 1, "sending a descriptor");
}

// What goes through a pipe or socket is sent in each iteration, by the same call for both
// contestants.
void add_descriptors() {
  std::array<int, 2> pipe_ends{};
  std::array<int, 2> socket_ends{};
  require(pipe(pipe_ends.data()) == 0, "opening a pipe");
  require(socketpair(AF_UNIX, SOCK_STREAM, 0, socket_ends.data()) == 0, "opening sockets");
  const auto [out, in] = pipe_ends;
  const auto [receiver, sender] = socket_ends;
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);

  auto job = job_name("write_all", "64 bytes");
  static constexpr std::array<char, 64> BYTES = {};
  add(job, "ours", [null] {
    require(write_all(null, {BYTES.data(), BYTES.size()}, nullptr) == 0, "write_all");
  });
  add(job, "floor", [null] { require(write(null, BYTES.data(), 64) == 64, "writing"); });

  job = job_name("read_timeout", "64 bytes that are there");
  add(job, "ours", [out, in] {
    require(write(in, BYTES.data(), 64) == 64, "filling the pipe");
    std::array<char, 64> buffer;
    size_t count = 0;
    require(read_timeout(out, buffer.data(), 64, &count, 1s) == 0, "read_timeout");
  });
  add(job, "floor", [out, in] {
    require(write(in, BYTES.data(), 64) == 64, "filling the pipe");
    std::array<char, 64> buffer;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const timespec timeout = {1, 0};
    pollfd entry = {out, POLLIN, 0};
    require(ppoll(&entry, 1, &timeout, nullptr) == 1 && read(out, buffer.data(), 64) == 64,
            "the floor's reading");
  });

  job = job_name("recvmsg_fd", "a byte and a descriptor that are there");
  add(job, "ours", [receiver, sender] {
    send_descriptor(sender);
    char byte = 0;
    iovec entry = {&byte, 1};
    size_t count = 0;
    int fd = -1;
    require(recvmsg_fd(receiver, &entry, 1, &count, &fd) == 0 && fd >= 0, "recvmsg_fd");
    close(fd);
  });
  add(job, "floor", [receiver, sender] {
    send_descriptor(sender);
    char byte = 0;
    iovec entry = {&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control;
    msghdr message = {};
    message.msg_iov = &entry;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    require(recvmsg(receiver, &message, 0) == 1, "the floor's receiving");
    int fd = -1;
    memcpy(&fd, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof(fd));
    close(fd);
  });
}

}  // namespace
}  // namespace vutil::bench

// usage: peers_bench FOLDER_IN_MEMORY FOLDER_ON_DISK [Google Benchmark's options]
int main(int argc, char** argv) {
  using namespace vutil::bench;
  benchmark::Initialize(&argc, argv);
  if (argc != 3) {
    fprintf(stderr, "Usage: peers_bench FOLDER_IN_MEMORY FOLDER_ON_DISK [OPTION...]\n");
    return 2;
  }
  const std::string in_memory = argv[1];
  const std::string on_disk = argv[2];
  print_memory(in_memory);  // first: some contestants keep what they have freed for later
  add_documents(in_memory);
  add_getters(in_memory);
  add_saves(in_memory, "on tmpfs");
  add_saves(on_disk, "on disk");
  add_files(in_memory);
  add_descriptors();
  RatioTable table;
  benchmark::RunSpecifiedBenchmarks(&table);
  benchmark::Shutdown();
}
