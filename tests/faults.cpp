#include "faults.h"

#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>
#include <sstream>
#include <string_view>
#include <type_traits>

namespace vutil::faults {
namespace {

thread_local struct {
  bool watching, failing_all, failed;
  int calls_left, fault, allocations_left;
  std::vector<std::string> calls;
} state;

// Pointers to data are left out of the notes: they differ from run to run.
template <typename Argument>
void note(std::ostream& text, Argument argument) {
  if constexpr (!std::is_same_v<Argument, void*>) text << " " << argument;
}

template <typename Argument>
void shorten(Argument& argument) {
  if constexpr (std::is_same_v<Argument, size_t>) argument = (argument + 1) / 2;
}

// Notes a call, then fails it, shortens it or passes it on. A close that fails has closed all the
// same.
template <typename Result, typename... Arguments>
Result stand_in(std::string_view name, const char* symbol, Arguments... arguments) {
  int fault = 0;
  if (state.watching) {
    std::ostringstream text;
    text << std::oct << name;
    (note(text, arguments), ...);
    state.calls.push_back(text.str());
    if (--state.calls_left == 0) fault = state.fault;
  }
  if (fault == KILL) raise(SIGKILL);
  if (fault == SHORTEN) (shorten(arguments), ...);
  const auto real = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, symbol));
  const Result result = fault > 0 && name != "close" ? -1 : real(arguments...);
  if (fault > 0) errno = fault;
  return fault > 0 ? -1 : result;
}

void* allocate(size_t size) {
  const bool fails = state.allocations_left > 0 && --state.allocations_left == 0;
  if (fails && state.failing_all) state.allocations_left = 1;
  state.failed |= fails;
  void* const memory = fails ? nullptr : malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void watch_calls(int nth, int fault) {
  state.calls.clear();
  state.calls_left = nth;
  state.fault = fault;
  state.watching = true;
}

std::vector<std::string> noted_calls() {
  state.watching = false;
  return state.calls;
}

void fail_allocation(int nth, bool all) {
  state.failed = false;
  state.failing_all = all;
  state.allocations_left = nth;
}

bool allocation_failed() {
  state.allocations_left = 0;
  return state.failed;
}

// The library uses the names with 64 for some on all targets, for others on 32-bit targets.
#define STAND_IN(name, symbol, result, parameters, ...)        \
  extern "C" result stand_in_##symbol parameters asm(#symbol); \
  extern "C" result stand_in_##symbol parameters {             \
    return stand_in<result>(#name, #symbol, __VA_ARGS__);      \
  }

STAND_IN(open, open64, int, (const char* path, int flags, mode_t mode), path, flags,
         (flags & O_CREAT) != 0 ? mode : 0u)
STAND_IN(lseek, lseek64, off64_t, (int fd, off64_t offset, int whence), fd, offset, whence)
STAND_IN(fcntl, fcntl64, int, (int fd, int command, void* flags), fd, command, flags)
STAND_IN(fcntl, __fcntl_time64, int, (int fd, int command, void* flags), fd, command, flags)
STAND_IN(ppoll, ppoll, int, (void* fds, int count, void* time, void* mask), fds, count, time, mask)
STAND_IN(ppoll, __ppoll64, int, (void* fds, int count, void* time, void* mask), fds, count, time,
         mask)
STAND_IN(recvmsg, recvmsg, ssize_t, (int fd, void* message, int flags), fd, message, flags)
STAND_IN(recvmsg, __recvmsg64, ssize_t, (int fd, void* message, int flags), fd, message, flags)
STAND_IN(read, read, ssize_t, (int fd, void* data, size_t size), fd, data, size)
STAND_IN(write, write, ssize_t, (int fd, void* data, size_t size), fd, data, size)
STAND_IN(writev, writev, ssize_t, (int fd, void* iov, int count), fd, iov, count)
STAND_IN(fsync, fsync, int, (int fd), fd)
STAND_IN(close, close, int, (int fd), fd)
STAND_IN(chmod, chmod, int, (const char* path, mode_t mode), path, mode)
STAND_IN(rename, rename, int, (const char* from, const char* to), from, to)
STAND_IN(unlink, unlink, int, (const char* path), path)

}  // namespace vutil::faults

void* operator new(size_t size) { return vutil::faults::allocate(size); }
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }
