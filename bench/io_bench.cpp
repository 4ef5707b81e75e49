// Settings saved durably, files and descriptors. script/bench runs this. A job's name is
// GROUP/JOB/WHO. The floor is the library's system calls with nothing around them.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <chrono>
#include <cstring>
#include <ctime>

#include "documents.h"
#include "peers.h"

namespace vutil::bench {
namespace {

constexpr Size ONE_MB = {"1 MB", 1'000'000};
constexpr Size HUNDRED_MB = {"100 MB", 100'000'000};

// Has `body` timed as what `who` does for a job, with what the kernel does for it.
template <typename Body>
void add(const std::string& job, const char* who, Body body) {
  const auto measure = [=](benchmark::State& state) mutable {
    for (auto _ : state) body();
  };
  benchmark::RegisterBenchmark((job + "/" + who).c_str(), measure)->UseRealTime();
}

void replace_file_with_bare_calls(const std::string& path, std::string_view contents) {
  const std::string tmp_path = path + ".floor";
  unlink(tmp_path.c_str());
  const int fd = open(tmp_path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, MODE);
  require(write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size()) &&
              fsync(fd) == 0 && chmod(tmp_path.c_str(), MODE) == 0,
          "the floor's writing");
  close(fd);
  require(chmod(tmp_path.c_str(), MODE) == 0 && rename(tmp_path.c_str(), path.c_str()) == 0,
          "the floor's renaming");
  const int directory_fd = open(path.substr(0, path.find('/')).c_str(), O_RDONLY | O_CLOEXEC);
  require(fsync(directory_fd) == 0, "the floor's flushing");
  close(directory_fd);
}

// A key that is there gets another value. The floor is given the text ready-made.
void add_save(const Size& size, const std::string& directory, const std::string& where) {
  const std::string job = std::string("Saves/set and save, ") + size.name + where;
  const Document document = draw_document(size.bytes, SIZE_MAX, Style::IN_ORDER);
  const auto has_keys = [](const auto& section) { return !section.second.empty(); };
  const auto& [section, entries] = *std::ranges::find_if(document.sections, has_keys);
  const Name name(section, entries.begin()->first);
  const auto add_saver = [&]<typename Peer>(Is<Peer>) {
    const std::string path = directory + Peer::NAME + size.name;
    require(set_file_contents(path, document.text, MODE) == 0, "writing the file of a benchmark");
    add(job, Peer::NAME, [peer = std::make_shared<Peer>(path), name, n = 0]() mutable {
      peer->set_and_save(name, ++n % 1000);
    });
  };
  add_saver(Is<Ours>());
  add(job, "floor", [path = directory + size.name, text = document.text] {
    replace_file_with_bare_calls(path, text);
  });
  add_saver(Is<Glib>());
}

// The library's system calls, into memory that is not zeroed first.
void read_file_with_bare_calls(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const off_t end = lseek(fd, 0, SEEK_END);
  require(end >= 0 && lseek(fd, 0, SEEK_SET) == 0, "the floor's seeking");
  const auto size = static_cast<size_t>(end);
  const auto contents = std::make_unique_for_overwrite<char[]>(size);
  require(read(fd, contents.get(), size) == end, "the floor's reading");
  benchmark::DoNotOptimize(contents.get());
  close(fd);
}

void add_reading(const Size& size) {
  const std::string job = std::string("Files/get_file_contents, ") + size.name;
  const std::string path = file(job.substr(6), [=] { return std::string(size.bytes, 'x'); });
  add(job, "ours", [=] {
    std::string contents;
    require(get_file_contents(path, contents) == 0, "get_file_contents");
    benchmark::DoNotOptimize(contents.data());
  });
  add(job, "floor", [=] { read_file_with_bare_calls(path); });
  add(job, "GLib", [=] {
    gchar* contents = nullptr;
    require(g_file_get_contents(path.c_str(), &contents, nullptr, nullptr) != 0, "reading");
    g_free(contents);
  });
}

void add_replacing(const Size& size) {
  const std::string job = std::string("Files/set_file_contents, ") + size.name + " on tmpfs";
  const std::string path = std::string(MEMORY) + "replaced " + size.name;
  const auto text = std::make_shared<const std::string>(size.bytes, 'x');  // one place for all
  add(job, "ours", [=] { require(set_file_contents(path, *text, MODE) == 0, "replacing"); });
  add(job, "floor", [=] { replace_file_with_bare_calls(path, *text); });
  add(job, "GLib", [=] { replace_file_with_glib(path, *text); });
}

constexpr std::array<char, 64> BYTES = {};

void add_write_all() {
  const std::string job = "Descriptors/write_all, 64 bytes";
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  add(job, "ours", [null] {
    require(write_all(null, {BYTES.data(), BYTES.size()}, nullptr) == 0, "write_all");
  });
  add(job, "floor", [null] { require(write(null, BYTES.data(), BYTES.size()) == 64, "writing"); });
}

// What goes through a pipe or socket is sent in each iteration, by the same call on both sides.
void add_read_timeout() {
  const std::string job = "Descriptors/read_timeout, 64 bytes that are there";
  std::array<int, 2> ends{};
  require(pipe2(ends.data(), O_CLOEXEC) == 0, "opening a pipe");
  const auto add_reader = [&](const char* who, auto reading) {
    add(job, who, [out = ends[0], in = ends[1], reading] {
      require(write(in, BYTES.data(), BYTES.size()) == 64, "filling the pipe");
      auto buffer = BYTES;
      require(reading(out, buffer.data()), "reading");
      benchmark::DoNotOptimize(buffer);
    });
  };
  add_reader("ours", [](int fd, char* buffer) {
    size_t count = 0;
    return read_timeout(fd, buffer, 64, &count, std::chrono::seconds(1)) == 0;
  });
  add_reader("floor", [](int fd, char* buffer) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const timespec timeout = {1, 0};
    pollfd entry = {fd, POLLIN, 0};
    return ppoll(&entry, 1, &timeout, nullptr) == 1 && read(fd, buffer, 64) == 64;
  });
}

// One byte of data, and room for a descriptor beside it.
struct Message {
  char byte = 'x';
  iovec entry = {&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control = {};
  msghdr header = {nullptr, 0, &entry, 1, control.data(), control.size(), 0};
};

void add_recvmsg_fd() {
  const std::string job = "Descriptors/recvmsg_fd, a byte and a descriptor that are there";
  std::array<int, 2> ends{};
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "opening sockets");
  const auto add_receiver = [&](const char* who, auto receive) {
    add(job, who, [receiver = ends[0], sender = ends[1], receive] {
      Message message;  // passes a copy of standard input
      const cmsghdr header = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
      memcpy(message.control.data(), &header, sizeof(header));
      require(sendmsg(sender, &message.header, 0) == 1, "sending a descriptor");
      require(close(receive(receiver)) == 0, "receiving a descriptor");
    });
  };
  add_receiver("ours", [](int socket) {
    Message message;
    size_t count = 0;
    int fd = -1;
    return recvmsg_fd(socket, &message.entry, 1, &count, &fd) == 0 ? fd : -1;
  });
  add_receiver("floor", [](int socket) {
    Message message;
    const ssize_t count = recvmsg(socket, &message.header, 0);
    const cmsghdr* const header = CMSG_FIRSTHDR(&message.header);
    int fd = -1;
    if (count == 1 && header != nullptr) memcpy(&fd, CMSG_DATA(header), sizeof(fd));
    return fd;
  });
}

}  // namespace
}  // namespace vutil::bench

int main(int argc, char** argv) {
  using namespace vutil::bench;
  benchmark::Initialize(&argc, argv);
  for (const Size& size : {ONE_KB, HUNDRED_KB}) add_save(size, MEMORY, " on tmpfs");
  for (const Size& size : {ONE_KB, HUNDRED_KB}) add_save(size, DISK, " on disk");
  for (const Size& size : {ONE_KB, ONE_MB, HUNDRED_MB}) add_reading(size);
  for (const Size& size : {ONE_KB, ONE_MB}) add_replacing(size);
  add_write_all();
  add_read_timeout();
  add_recvmsg_fd();
  benchmark::RunSpecifiedBenchmarks();
}
