// What all tests share: a directory of their own, the messages of the library, and disturbances of
// its system calls and allocations. Each test program includes this once and so defines some of
// libc's entry points and operator new: the library, the very one that is installed, calls these.
#ifndef VUTIL_TESTS_SUPPORT_H_
#define VUTIL_TESTS_SUPPORT_H_

#include <dlfcn.h>
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <concepts>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "vutil/io.h"
#include "vutil/keyfile.h"

namespace vutil {

using namespace std::chrono_literals;
using namespace std::string_literals;
using std::chrono::nanoseconds;
using Texts = std::vector<std::string>;

inline int open_descriptors() {
  int count = 0;
  struct stat status = {};
  for (int fd = 0; fd < 64; ++fd) count += fstat(fd, &status) == 0 ? 1 : 0;
  return count;
}

// Each test runs in a new directory, and fails if it leaves a descriptor open. Standard input is
// closed, so that 0 is the number of the first descriptor that a test or the library opens.
class InDirectory : public testing::Test {
 protected:
  void SetUp() override {
    const char* base = getenv("TMPDIR");
    if (base == nullptr) base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    directory_ = std::string(base) + "/vutilXXXXXX";
    umask(077);
    ASSERT_TRUE(mkdtemp(directory_.data()) != nullptr && chdir(directory_.c_str()) == 0)
        << "no directory for the tests: " << directory_ << ": " << strerror(errno);
    close(STDIN_FILENO);
    open_before_ = open_descriptors();
  }

  void TearDown() override {
    for (int& fd : fds_) xclose(fd);
    EXPECT_EQ(open_descriptors(), open_before_) << "the test leaked a descriptor or closed another";
    EXPECT_EQ(chdir("/"), 0);
    const auto erase = [](auto path, auto, auto, auto) { return remove(path); };
    nftw(directory_.c_str(), erase, 8, FTW_DEPTH | FTW_PHYS);
  }

  std::string directory_;
  std::array<int, 2> fds_ = {-1, -1};  // what a test has open
  int open_before_ = 0;
};

struct Disturbance {
  size_t nth = 0;                          // the call that is disturbed, counted from 1,
  int error = 0;                           // which then fails with this errno value,
  std::optional<long long> result = {};    // or does nothing and gives this
  size_t at_most = SIZE_MAX;               // bytes that a call reads or writes
  std::function<void(msghdr&)> edit = {};  // what becomes of a message that is received
};

inline thread_local struct {
  const Disturbance* disturbance = nullptr;  // while calls are noted
  Texts calls;
  nanoseconds now{};
  int allocations_left = 0;  // until one fails
  bool all_fail = false, failed = false;
  size_t largest = 0;  // of all allocations
} interposer;

// Arguments whose numbers have names.
enum Flags : int {};
enum Mode : mode_t {};
enum Command : int {};
enum Clock : clockid_t {};

// How an argument is noted. Pointers to data are left out.
inline std::string shown(const char* path) { return std::string(" ") + path; }
inline std::string shown(std::integral auto number) { return " " + std::to_string(number); }
inline std::string shown(const void*) { return ""; }
inline std::string shown(Mode mode) {
  return (std::ostringstream() << std::oct << std::showbase << " " << unsigned{mode}).str();
}
inline std::string shown(Clock id) { return id == CLOCK_MONOTONIC ? " MONOTONIC" : " other"; }
inline std::string shown(Command command) {
  return command == F_GETFL ? " F_GETFL" : command == F_SETFL ? " F_SETFL" : " other";
}
inline std::string shown(Flags flags) {
  std::string names;
#define NAMED(flag) std::pair(flag, " " #flag)
  for (const auto& [flag, name] : {NAMED(O_WRONLY), NAMED(O_CREAT), NAMED(O_EXCL), NAMED(O_APPEND),
                                   NAMED(O_NONBLOCK), NAMED(O_CLOEXEC)}) {
    if ((flags & flag) != 0) names += name;
    flags = Flags(flags & ~flag & ~__O_LARGEFILE);  // which emulators show
  }
  return flags == 0 ? names : names + shown(int{flags});
}
inline std::string shown(timespec*) { return ""; }
inline std::string shown(const pollfd* entry) {
  return shown(entry->fd) + (entry->events == POLLIN ? " POLLIN" : " other");
}
inline std::string shown(const timespec* time) {
  return shown(time->tv_sec) + " s" + shown(time->tv_nsec) + " ns";
}

// What happens to an argument before a call, and to what it points to after the call.
void shorten(const auto&) {}
inline void shorten(size_t& size) { size = std::min(size, interposer.disturbance->at_most); }
void adjust(const auto&) {}
inline void adjust(msghdr* message) {
  if (interposer.disturbance->edit) interposer.disturbance->edit(*message);
}
inline void adjust(timespec* now) {
  interposer.now += 100ms;
  *now = {interposer.now / 1s, static_cast<long>((interposer.now % 1s).count())};
}

// A call of libc's `symbol`, noted under `name`. A close that fails has closed all the same.
template <typename Result, typename... Arguments>
Result stand_in(const std::string& name, const char* symbol, Arguments... arguments) {
  const auto real = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, symbol));
  if (interposer.disturbance == nullptr) return real(arguments...);
  const Disturbance& disturbance = *interposer.disturbance;
  interposer.calls.push_back((name + ... + shown(arguments)));
  const bool disturbed = interposer.calls.size() == disturbance.nth;
  const bool fails = disturbed && disturbance.error != 0;
  (shorten(arguments), ...);
  const Result result = disturbed && disturbance.result ? static_cast<Result>(*disturbance.result)
                        : fails && name != "close"      ? -1
                                                        : real(arguments...);
  (adjust(arguments), ...);
  if (fails) errno = disturbance.error;
  return fails ? -1 : result;
}

// A copy of an array of buffers that holds no more than may be written.
inline std::vector<iovec> shortened(const iovec* iov, int count) {
  std::vector<iovec> entries(iov, iov + count);
  size_t left = interposer.disturbance == nullptr ? SIZE_MAX : interposer.disturbance->at_most;
  for (iovec& entry : entries) left -= entry.iov_len = std::min(entry.iov_len, left);
  return entries;
}

inline void* allocate(size_t size) {
  interposer.largest = std::max(interposer.largest, size);
  const bool fails = interposer.allocations_left > 0 && --interposer.allocations_left == 0;
  if (fails && interposer.all_fail) interposer.allocations_left = 1;
  interposer.failed |= fails;
  return fails ? nullptr : malloc(size);
}

inline void put(const std::string& path, const std::string& text) { std::ofstream(path) << text; }
inline std::string text_of(const std::string& path) {
  return (std::ostringstream() << std::ifstream(path).rdbuf()).str();
}

// What `run` writes to standard error, and a line if it leaks a descriptor, or closes another (-1).
// Each print changes errno; one of part of a line is marked.
inline std::string messages_of(const std::function<void()>& run) {
  const int open_before = open_descriptors();
  std::string messages;
  messages.reserve(size_t{1} << 16);  // allocations may be failing
  const auto append = [](void* to, const char* text, size_t size) {
    static_cast<std::string*>(to)->append(text, size).append(text[size - 1] == '\n' ? "" : "[cut]");
    errno = EXFULL;
    return static_cast<ssize_t>(size);
  };
  FILE* const stream = fopencookie(&messages, "w", {nullptr, append, nullptr, nullptr});
  setvbuf(stream, nullptr, _IONBF, 0);
  FILE* const standard_error = std::exchange(stderr, stream);
  run();
  fclose(std::exchange(stderr, standard_error));
  const int leaked = open_descriptors() - open_before;
  if (leaked != 0) messages += "[" + std::to_string(leaked) + " more descriptors are open]\n";
  return messages;
}

// The messages of a call, and its result or the name of its error.
inline std::string outcome_of(const std::function<int()>& run) {
  int result = 0;
  const std::string messages = messages_of([&] { result = run(); });
  return messages + (result < 0 ? strerrorname_np(-result) : std::to_string(result));
}

// Fails at the first line that differs, with a note.
inline void expect_lines(const std::string& text, const std::string& expected,
                         const std::string& note = "") {
  std::istringstream lines(text), expected_lines(expected);
  for (std::string before, line, expected_line; lines || expected_lines; before = line) {
    if (!std::getline(lines, line)) line = "(end)";
    if (!std::getline(expected_lines, expected_line)) expected_line = "(end)";
    ASSERT_EQ(line, expected_line) << "after the line \"" << before << "\" " << note;
  }
}

// The system calls that `run` makes in this thread, in order. The clock starts at 100 s and goes on
// by 0.1 s for each look at it.
inline Texts calls_of(const std::function<void()>& run, const Disturbance& disturbance = {}) {
  interposer.now = 100s;
  interposer.disturbance = &disturbance;
  run();
  interposer.disturbance = nullptr;
  return std::exchange(interposer.calls, {});
}

// NOLINTBEGIN(misc-definitions-in-headers): once in each program
#define STAND_IN(name, symbol, result, parameters, ...)        \
  extern "C" result stand_in_##symbol parameters asm(#symbol); \
  extern "C" result stand_in_##symbol parameters {             \
    return stand_in<result>(#name, #symbol, __VA_ARGS__);      \
  }
// On 32-bit targets, calls with 64-bit times have symbols of their own.
#define STAND_IN_2(name, symbol, symbol_64, result, parameters, ...) \
  STAND_IN(name, symbol, result, parameters, __VA_ARGS__)            \
  STAND_IN(name, symbol_64, result, parameters, __VA_ARGS__)

STAND_IN(open, open64, int, (const char* path, Flags flags, Mode mode), path, flags,
         (flags & O_CREAT) != 0 ? mode : Mode{})
STAND_IN(lseek, lseek64, off64_t, (int fd, off64_t offset, int from), fd, offset, from)
STAND_IN(read, read, ssize_t, (int fd, void* data, size_t size), fd, data, size)
STAND_IN(write, write, ssize_t, (int fd, const void* data, size_t size), fd, data, size)
STAND_IN(writev, writev, ssize_t, (int fd, const iovec* iov, int count), fd,
         static_cast<const iovec*>(shortened(iov, count).data()), count)
STAND_IN(fsync, fsync, int, (int fd), fd)
STAND_IN(close, close, int, (int fd), fd)
STAND_IN(chmod, chmod, int, (const char* path, Mode mode), path, mode)
STAND_IN(rename, rename, int, (const char* from, const char* to), from, to)
STAND_IN(unlink, unlink, int, (const char* path), path)
STAND_IN_2(fcntl, fcntl64, __fcntl_time64, int, (int fd, Command command, Flags flags), fd, command,
           command == F_SETFL ? flags : Flags{})
STAND_IN_2(ppoll, ppoll, __ppoll64, int,
           (const pollfd* fds, nfds_t n, const timespec* t, void* set), fds, n, t, set)
STAND_IN_2(recvmsg, recvmsg, __recvmsg64, ssize_t, (int fd, msghdr* to, int flags), fd, to, flags)
STAND_IN_2(clock_gettime, clock_gettime, __clock_gettime64, int, (Clock id, timespec* now), id, now)
// clang fortifies these.
STAND_IN(open, __open64_2, int, (const char* path, Flags flags), path, flags, Mode{})
STAND_IN(ppoll, __ppoll_chk, int,
         (const pollfd* fds, nfds_t n, const timespec* t, void* a, void* b), fds, n, t, a, b)

// While all allocations fail, there is no memory for the text of a message.
#define WITHOUT_MEMORY(symbol, parameters, ...)                                               \
  extern "C" int stand_in_##symbol parameters asm(#symbol);                                   \
  extern "C" int stand_in_##symbol parameters {                                               \
    const auto real = reinterpret_cast<int(*) parameters>(dlsym(RTLD_NEXT, #symbol));         \
    const int length = real(__VA_ARGS__);                                                     \
    return interposer.failed && interposer.allocations_left > 0 ? (free(*text), -1) : length; \
  }
WITHOUT_MEMORY(vasprintf, (char** text, const char* format, va_list list), text, format, list)
WITHOUT_MEMORY(__vasprintf_chk, (char** text, int b, const char* c, va_list d), text, b, c, d)

}  // namespace vutil

void* operator new(size_t size) {
  void* const memory = vutil::allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { free(memory); }
// NOLINTEND(misc-definitions-in-headers)

#endif  // VUTIL_TESTS_SUPPORT_H_
