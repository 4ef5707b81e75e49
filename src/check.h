// Messages on standard error, and argument checks that fail softly: a service is better served by
// an error result and a message in its journal than by an abort.
#ifndef VUTIL_SRC_CHECK_H_
#define VUTIL_SRC_CHECK_H_

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace vutil {

// Prints a message in one write: other processes write between two. By itself, printf writes to
// standard error in pieces of 128 bytes since glibc 2.37, as this does if there is no memory.
[[gnu::format(printf, 1, 2)]] inline void print_message(const char* format, ...) {
  char* text = nullptr;
  std::va_list arguments, again;
  va_start(arguments, format);
  va_copy(again, arguments);
  if (vasprintf(&text, format, arguments) < 0) text = nullptr;
  text != nullptr ? fputs(text, stderr) : vfprintf(stderr, format, again);
  free(text);
  va_end(again);
  va_end(arguments);
}

}  // namespace vutil

#define VUTIL_QUOTE_EXPANDED(x) #x
#define VUTIL_QUOTE(x) VUTIL_QUOTE_EXPANDED(x)

// `text` arrives as a finished literal: quoted here, a condition such as `errno != EBADF` would be
// printed with its macros expanded. `...` is the result, if the function has one.
#define VUTIL_CHECK(condition, text, ...)                                                      \
  do {                                                                                         \
    if (!(condition)) {                                                                        \
      print_message("<2>" __FILE__ ":" VUTIL_QUOTE(__LINE__) ": %s: Assertion `%s' failed.\n", \
                    __func__, text);                                                           \
      return __VA_ARGS__;                                                                      \
    }                                                                                          \
  } while (false)

// Unless `condition` holds, prints for example
//   <2>src/io.cpp:120: read_deadline: Assertion `deadline >= 0ns' failed.
// and returns `result`, or nothing, from the enclosing function. It must stand on one line.
#define CHECK_OR_RETURN(condition, result) VUTIL_CHECK(condition, #condition, result)
#define CHECK_OR_RETURN_VOID(condition) VUTIL_CHECK(condition, #condition, )

#endif  // VUTIL_SRC_CHECK_H_
