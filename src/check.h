// Argument checks that fail softly: a service on an unattended device is better served by an error
// result and a line in its journal than by an abort.
//
// A failed check prints one line, for example
//   <2>src/io.cpp:120: read_deadline: Assertion `deadline >= 0ns' failed.
// and returns from the enclosing function. File, line, function and text come from the place where
// the check stands, so a check must stand on one source line.
#ifndef VUTIL_SRC_CHECK_H_
#define VUTIL_SRC_CHECK_H_

#include <cstdio>

#define VUTIL_STRINGIFY_EXPANDED(x) #x
#define VUTIL_STRINGIFY(x) VUTIL_STRINGIFY_EXPANDED(x)

// `text` arrives as a finished literal: stringified any deeper than in the macros below, a
// condition such as `errno != EBADF` would be printed with its macros expanded.
#define VUTIL_PRINT_FAILED_CHECK(text)                                                           \
  fprintf(stderr, "<2>" __FILE__ ":" VUTIL_STRINGIFY(__LINE__) ": %s: Assertion `%s' failed.\n", \
          __func__, text)

// Returns `result` from the enclosing function, after the line, unless `condition` holds.
#define CHECK_OR_RETURN(condition, result)  \
  do {                                      \
    if (!(condition)) {                     \
      VUTIL_PRINT_FAILED_CHECK(#condition); \
      return result;                        \
    }                                       \
  } while (false)

// The same for a function without a result.
#define CHECK_OR_RETURN_VOID(condition)     \
  do {                                      \
    if (!(condition)) {                     \
      VUTIL_PRINT_FAILED_CHECK(#condition); \
      return;                               \
    }                                       \
  } while (false)

#endif  // VUTIL_SRC_CHECK_H_
